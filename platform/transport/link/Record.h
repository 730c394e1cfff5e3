#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "transport/TerminationId.h"

namespace Link {

/**
 * What a piece bears beside its records. A piece is what two links hand to the engine between them
 * at a time: whole, in order, and once.
 *
 * | field | meaning |
 * |---|---|
 * | fromToken | the sender's session |
 * | toToken | the receiver's session, as far as the sender knows; 0: not at all |
 * | number | counts pieces with records from 1; of a piece without, the last number given |
 * | taken | the last number of the other direction that has been taken in |
 */
struct PieceHead {
    std::uint64_t fromToken = 0;
    std::uint64_t toToken = 0;
    std::uint64_t number = 0;
    std::uint64_t taken = 0;
};

/** As much as a piece may hold of records. */
constexpr std::size_t kMostPieceBytes = 65'024;
/** As much as actor and name of a termination may take together. */
constexpr std::size_t kMostNameBytes = 512;

enum class RecordKind : std::uint32_t {
    Message = 1,    // a part of a message, or all of it
    Returned = 2,   // likewise, of one that its destination has not read
    Arrived = 3,    // a termination that is shown to all
    Departed = 4,   // a termination of either kind
    Reachable = 5,  // a termination that is not shown: answers find it
    Settled = 6,    // messages that are in the rings of their destination
    Refused = 7,    // messages that never got there: their sender has them still
    Probe = 8,      // nothing: is there to be confirmed
};

/**
 * What stands before each record of a piece; all little-endian, records back to back, each padded
 * with zeros to a multiple of 8 bytes.
 *
 * | offset | bytes | field | Message | Returned | Arrived, Reachable | Departed | Settled, Refused |
 * |---|---|---|---|---|---|---|---|
 * | 0 | 4 | kind | 1 | 2 | 3, 5 | 4 | 6, 7 |
 * | 4 | 4 | from | who sent it | who sent it | who came | who went | who sent them |
 * | 8 | 4 | to | for whom | for whom it was | 0 | 0 | for whom |
 * | 12 | 4 | serial | counts those of this pair | 0 | 0 | 0 | of the first one |
 * | 16 | 4 | total | size of the message | likewise | 0 | 0 | how many |
 * | 20 | 4 | offset | where this part begins | likewise | 0 | 0 | 0 |
 * | 24 | 4 | length | bytes that follow | likewise | likewise | 0 | 0 |
 * | 28 | 4 | zero | | | | | |
 * | 32 | length | | the part | the part | actor, NUL, name | | |
 */
struct RecordHead {
    static constexpr std::size_t kBytes = 32;

    RecordKind kind = RecordKind::Probe;
    Transport::TerminationId from{};
    Transport::TerminationId to{};
    std::uint32_t serial = 0;
    std::uint32_t total = 0;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
};

/** A record as it lies in a piece: valid as long as that is. */
struct Record {
    RecordHead head;
    unsigned char const* bytes = nullptr;
};

/** Reads the records of a piece from a peer that may send anything. A value. */
class RecordReader {
public:
    enum class Result { Record, End, Garbage };

    RecordReader(unsigned char const* bytes, std::size_t size) : at_(bytes), left_(size) {}
    /** The next record, whose fields make sense by themselves. After Garbage there is none. */
    Result next(Record& record);

private:
    unsigned char const* at_;
    std::size_t left_;
};

/** A piece that is being filled; its memory is kept for the next one. */
class Piece {
public:
    PieceHead head;

    Piece() { bytes_.reserve(kMostPieceBytes); }
    void clear() { bytes_.clear(); }
    bool empty() const { return bytes_.empty(); }
    unsigned char const* data() const { return bytes_.data(); }
    std::size_t size() const { return bytes_.size(); }
    /** How many bytes a record may have that still fits; negative when not even its head does. */
    long room() const;
    /** Appends a record that fits; `record.length` bytes are read. */
    void append(RecordHead const& record, unsigned char const* bytes);

private:
    std::vector<unsigned char> bytes_;
};

/** The bytes of Arrived and Reachable, cut to what may be sent. */
std::string joinNames(std::string const& actor, std::string const& name);
/** The two parts of such bytes. */
void splitNames(std::string const& bytes, std::string& actor, std::string& name);

}  // namespace Link
