#pragma once

#include <optional>
#include <string>

#include "platform/transport/local/Descriptor.h"

namespace Link {

/**
 * The socket in the rendezvous folder at which the folder's link tells how it is: who connects gets
 * a document, and its end. Nobody but the folder's user can reach it. A resource of the control
 * thread, and of a process that is the link.
 */
class StatusSocket {
public:
    /** In the folder at this path; not valid, with a log line, on failure. */
    explicit StatusSocket(std::string const& folder);
    ~StatusSocket();
    StatusSocket(StatusSocket const&) = delete;
    StatusSocket& operator=(StatusSocket const&) = delete;

    /** Readable when somebody asks; -1: nobody can. */
    int descriptor() const { return listening_.get(); }
    /** Answers one who asks. Never blocks: who does not take it in at once loses the rest. False:
     * there is no descriptor for that, or no memory, and who asks waits. */
    bool answer(std::string const& document) const;

private:
    Transport::Descriptor folder_;
    Transport::Descriptor listening_;
};

/** What a running link of a folder says. */
struct StatusAnswer {
    enum class Kind { Told, NoLink, Forbidden, Silent };
    Kind kind;
    std::string document{};
};

/** Asks the link of the folder at this path; waits until then at most, in nanoseconds. */
StatusAnswer askStatus(std::string const& folder, long long until);

}  // namespace Link
