// Generated from machine.idl by reflectorb-idl: change that file, not this one.
#pragma once

#include <ipprmi.h>
#include <reflect.h>

#include <cstdint>
#include <string>
#include <vector>

namespace part {

constexpr unsigned int kClass = 0x426F4678;
enum Method : unsigned int { kGetDescription = 0x02000000 };

}  // namespace part

/** Whatever is in the tree of names. */
class PartClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<std::string> getDescription() const;
};

namespace watchedPart {

constexpr unsigned int kClass = 0x27223342;
enum Method : unsigned int {
    kGetAlarm = 0x511E0000,
    kGetAlarmLimit = 0x511E0001,
    kSetAlarmLimit = 0x511E0002
};

/** Above 100 percent. */
struct BadLimit {
    static constexpr unsigned int kCode = 0x1;

    unsigned int highest = 0;
};

TipprmiStream& operator<<(TipprmiStream& stream, BadLimit const& value);
TipprmiStream& operator>>(TipprmiStream& stream, BadLimit& value);

struct AlarmState {
    unsigned int limit = 0;
    bool raised = false;
};

TipprmiStream& operator<<(TipprmiStream& stream, AlarmState const& value);
TipprmiStream& operator>>(TipprmiStream& stream, AlarmState& value);

}  // namespace watchedPart

/** A part that raises an alarm when too much of it is in use. */
class WatchedPartClient : public PartClient {
public:
    using PartClient::PartClient;

    TipprmiResult<watchedPart::AlarmState> getAlarm() const;
    /** Percent of the part in use from which on there is an alarm. */
    TipprmiResult<unsigned int> getAlarmLimit() const;
    TipprmiOutcome<void, watchedPart::BadLimit> setAlarmLimit(unsigned int alarmLimit) const;
};

namespace cpu {

constexpr unsigned int kClass = 0x623BEA8F;
enum Method : unsigned int { kGetLoad = 0x2E130000 };

}  // namespace cpu

/** A processor. */
class CpuClient : public WatchedPartClient {
public:
    using WatchedPartClient::WatchedPartClient;

    /** Percent of the time since the last look in which it was busy. */
    TipprmiResult<unsigned int> getLoad() const;
};

namespace memory {

constexpr unsigned int kClass = 0x0A8574FA;
enum Method : unsigned int { kGetTotal = 0x15FE0000, kGetFree = 0x15FE0001 };

}  // namespace memory

/** Main memory. */
class MemoryClient : public WatchedPartClient {
public:
    using WatchedPartClient::WatchedPartClient;

    /** In bytes. */
    TipprmiResult<std::uint64_t> getTotal() const;
    /** Bytes that programs can still have, caches that would give way included. */
    TipprmiResult<std::uint64_t> getFree() const;
};

namespace disk {

constexpr unsigned int kClass = 0x92016A14;
enum Method : unsigned int { kGetTotal = 0x717E0000, kGetFree = 0x717E0001 };

}  // namespace disk

/** A mounted file system. */
class DiskClient : public WatchedPartClient {
public:
    using WatchedPartClient::WatchedPartClient;

    /** In bytes. */
    TipprmiResult<std::uint64_t> getTotal() const;
    /** In bytes. */
    TipprmiResult<std::uint64_t> getFree() const;
};

namespace networkInterface {

constexpr unsigned int kClass = 0x7A3F41C8;
enum Method : unsigned int { kGetReceivedBytes = 0x374A0000, kGetSentBytes = 0x374A0001 };

}  // namespace networkInterface

/** A handle on objects of the class NetworkInterface. */
class NetworkInterfaceClient : public PartClient {
public:
    using PartClient::PartClient;

    /** Bytes since the interface came up. */
    TipprmiResult<std::uint64_t> getReceivedBytes() const;
    /** Bytes since the interface came up. */
    TipprmiResult<std::uint64_t> getSentBytes() const;
};

namespace process {

constexpr unsigned int kClass = 0x95B3B83C;
enum Method : unsigned int { kGetPid = 0x7C840000, kGetResident = 0x7C840001 };

}  // namespace process

/** A process that the machine watches. */
class ProcessClient : public PartClient {
public:
    using PartClient::PartClient;

    TipprmiResult<unsigned int> getPid() const;
    /** Bytes of memory that it has at present. */
    TipprmiResult<std::uint64_t> getResident() const;
};

namespace machine {

constexpr unsigned int kClass = 0x763EFAF0;
enum Method : unsigned int { kGetHost = 0x3ACC0000, kParts = 0x3ACC0001 };

using Names = std::vector<std::string>;

/**
 * Name and identifier of a root are the same: so a path such as /machine/cpu0 tells where to begin.
 */
constexpr char name[] = "machine";

}  // namespace machine

/** The root of the tree, which knows the others. */
class MachineClient : public PartClient {
public:
    using PartClient::PartClient;

    TipprmiResult<std::string> getHost() const;
    /** Names of the parts of a kind; none of a kind that it does not know. */
    TipprmiResult<machine::Names> parts(std::string const& kind) const;
};

template <>
struct TreflectTypeName<watchedPart::BadLimit> {
    static std::string text() { return "struct WatchedPart::BadLimit{unsigned highest}"; }
};

template <>
struct TreflectTypeName<watchedPart::AlarmState> {
    static std::string text() {
        return "struct WatchedPart::AlarmState{unsigned limit, bool raised}";
    }
};

inline TreflectMetaClass const partMeta(
    "Part", part::kClass, {},
    {{"getDescription", part::kGetDescription, {}, {"string"}}},
    {"Description"}, {},
    {"Whatever is in the tree of names."});

/** What a server object of the class Part derives from and fills in. */
class PartSkeleton : public TreflectSkeleton<partMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::string getDescription() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const watchedPartMeta(
    "WatchedPart", watchedPart::kClass, {&partMeta},
    {{"getAlarm", watchedPart::kGetAlarm,
      {},
      {"struct WatchedPart::AlarmState{unsigned limit, bool raised}"}},
     {"getAlarmLimit", watchedPart::kGetAlarmLimit, {}, {"unsigned"}},
     {"setAlarmLimit", watchedPart::kSetAlarmLimit,
      {"unsigned alarmLimit"},
      {},
      {{watchedPart::BadLimit::kCode, "struct WatchedPart::BadLimit{unsigned highest}"}}}},
    {"Alarm", "AlarmLimit"}, {},
    {"A part that raises an alarm when too much of it is in use.",
     {{"AlarmLimit", "Percent of the part in use from which on there is an alarm."}}});

/** What a server object of the class WatchedPart derives from and fills in. */
class WatchedPartSkeleton : public TreflectSkeleton<watchedPartMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual watchedPart::AlarmState getAlarm() = 0;
    virtual unsigned int getAlarmLimit() = 0;
    virtual TipprmiOutcome<void, watchedPart::BadLimit> setAlarmLimit(unsigned int alarmLimit) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const cpuMeta(
    "Cpu", cpu::kClass, {&watchedPartMeta},
    {{"getLoad", cpu::kGetLoad, {}, {"unsigned"}}},
    {"Load"}, {},
    {"A processor.",
     {{"Load", "Percent of the time since the last look in which it was busy."}}});

/** What a server object of the class Cpu derives from and fills in. */
class CpuSkeleton : public TreflectSkeleton<cpuMeta, WatchedPartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual unsigned int getLoad() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const memoryMeta(
    "Memory", memory::kClass, {&watchedPartMeta},
    {{"getTotal", memory::kGetTotal, {}, {"uint64"}},
     {"getFree", memory::kGetFree, {}, {"uint64"}}},
    {"Total", "Free"}, {},
    {"Main memory.",
     {{"Total", "In bytes."},
      {"Free", "Bytes that programs can still have, caches that would give way included."}}});

/** What a server object of the class Memory derives from and fills in. */
class MemorySkeleton : public TreflectSkeleton<memoryMeta, WatchedPartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::uint64_t getTotal() = 0;
    virtual std::uint64_t getFree() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const diskMeta(
    "Disk", disk::kClass, {&watchedPartMeta},
    {{"getTotal", disk::kGetTotal, {}, {"uint64"}},
     {"getFree", disk::kGetFree, {}, {"uint64"}}},
    {"Total", "Free"}, {},
    {"A mounted file system.",
     {{"Total", "In bytes."},
      {"Free", "In bytes."}}});

/** What a server object of the class Disk derives from and fills in. */
class DiskSkeleton : public TreflectSkeleton<diskMeta, WatchedPartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::uint64_t getTotal() = 0;
    virtual std::uint64_t getFree() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const networkInterfaceMeta(
    "NetworkInterface", networkInterface::kClass, {&partMeta},
    {{"getReceivedBytes", networkInterface::kGetReceivedBytes, {}, {"uint64"}},
     {"getSentBytes", networkInterface::kGetSentBytes, {}, {"uint64"}}},
    {"ReceivedBytes", "SentBytes"}, {},
    {"",
     {{"ReceivedBytes", "Bytes since the interface came up."},
      {"SentBytes", "Bytes since the interface came up."}}});

/** What a server object of the class NetworkInterface derives from and fills in. */
class NetworkInterfaceSkeleton : public TreflectSkeleton<networkInterfaceMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::uint64_t getReceivedBytes() = 0;
    virtual std::uint64_t getSentBytes() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const processMeta(
    "Process", process::kClass, {&partMeta},
    {{"getPid", process::kGetPid, {}, {"unsigned"}},
     {"getResident", process::kGetResident, {}, {"uint64"}}},
    {"Pid", "Resident"}, {},
    {"A process that the machine watches.",
     {{"Resident", "Bytes of memory that it has at present."}}});

/** What a server object of the class Process derives from and fills in. */
class ProcessSkeleton : public TreflectSkeleton<processMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual unsigned int getPid() = 0;
    virtual std::uint64_t getResident() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const machineMeta(
    "Machine", machine::kClass, {&partMeta},
    {{"getHost", machine::kGetHost, {}, {"string"}},
     {"parts", machine::kParts, {"string kind"}, {"sequence<string>"}}},
    {"Host"}, {},
    {"The root of the tree, which knows the others.",
     {{"parts", "Names of the parts of a kind; none of a kind that it does not know."}}});

/** What a server object of the class Machine derives from and fills in. */
class MachineSkeleton : public TreflectSkeleton<machineMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::string getHost() = 0;
    virtual machine::Names parts(std::string const& kind) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};
