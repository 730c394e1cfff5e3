// The classes of the machine's objects: what all programs must agree on that have to do with them.
// A class has a code that is unique in the system, codes for its methods that are unique in the
// class and its bases, and its meta information: tables of its operations, with the types of their
// arguments and results, and of its attributes. The attribute "Load" is the operation "getLoad"
// and, if it can be changed, "setLoad".
//
// Nothing in here needs the C++ classes: a program that includes no more than this file can read,
// change, call and watch every object by name (the command reflectorb needs not even this).
#pragma once

#include <reflect.h>

// How the values of Alarm.h and ByteCount.h travel.
constexpr char kAlarmStateType[] = "{unsigned,bool}";
constexpr char kByteCountType[] = "{unsigned,unsigned}";

// ---- Part: whatever is in the tree; the base of all others --------------------------------------

namespace part {
constexpr unsigned int kClass = 0x50415201;
enum Method : unsigned int { kGetDescription = 1 };
}  // namespace part

inline TreflectMetaClass const partMeta("Part", part::kClass, {},
                                        {{"getDescription", part::kGetDescription, {}, {"string"}}},
                                        {"Description"});

// ---- WatchedPart: a part that raises an alarm when too much of it is in use ---------------------

namespace watched {
constexpr unsigned int kClass = 0x57415401;
enum Method : unsigned int { kGetAlarm = 11, kGetAlarmLimit = 12, kSetAlarmLimit = 13 };
}  // namespace watched

inline TreflectMetaClass const watchedPartMeta(
    "WatchedPart", watched::kClass, {&partMeta},
    {{"getAlarm", watched::kGetAlarm, {}, {kAlarmStateType}},
     {"getAlarmLimit", watched::kGetAlarmLimit, {}, {"unsigned"}},
     {"setAlarmLimit", watched::kSetAlarmLimit, {"unsigned"}, {}}},
    {"Alarm", "AlarmLimit"});

// ---- The parts themselves -----------------------------------------------------------------------

namespace cpu {
constexpr unsigned int kClass = 0x43505501;
enum Method : unsigned int { kGetLoad = 21 };
}  // namespace cpu

inline TreflectMetaClass const cpuMeta("Cpu", cpu::kClass, {&watchedPartMeta},
                                       {{"getLoad", cpu::kGetLoad, {}, {"unsigned"}}}, {"Load"});

namespace memory {
constexpr unsigned int kClass = 0x4D454D01;
enum Method : unsigned int { kGetTotal = 21, kGetFree = 22 };
}  // namespace memory

inline TreflectMetaClass const memoryMeta("Memory", memory::kClass, {&watchedPartMeta},
                                          {{"getTotal", memory::kGetTotal, {}, {kByteCountType}},
                                           {"getFree", memory::kGetFree, {}, {kByteCountType}}},
                                          {"Total", "Free"});

namespace disk {
constexpr unsigned int kClass = 0x44534B01;
enum Method : unsigned int { kGetTotal = 21, kGetFree = 22 };
}  // namespace disk

inline TreflectMetaClass const diskMeta("Disk", disk::kClass, {&watchedPartMeta},
                                        {{"getTotal", disk::kGetTotal, {}, {kByteCountType}},
                                         {"getFree", disk::kGetFree, {}, {kByteCountType}}},
                                        {"Total", "Free"});

namespace network {
constexpr unsigned int kClass = 0x4E455401;
enum Method : unsigned int { kGetReceivedBytes = 21, kGetSentBytes = 22 };
}  // namespace network

inline TreflectMetaClass const networkInterfaceMeta(
    "NetworkInterface", network::kClass, {&partMeta},
    {{"getReceivedBytes", network::kGetReceivedBytes, {}, {kByteCountType}},
     {"getSentBytes", network::kGetSentBytes, {}, {kByteCountType}}},
    {"ReceivedBytes", "SentBytes"});

namespace process {
constexpr unsigned int kClass = 0x50524F01;
enum Method : unsigned int { kGetPid = 21, kGetResident = 22 };
}  // namespace process

inline TreflectMetaClass const processMeta(
    "Process", process::kClass, {&partMeta},
    {{"getPid", process::kGetPid, {}, {"unsigned"}},
     {"getResident", process::kGetResident, {}, {kByteCountType}}},
    {"Pid", "Resident"});

// ---- Machine: the root of the tree, which knows the others -------------------------------------

namespace machine {
constexpr unsigned int kClass = 0x4D414301;
enum Method : unsigned int { kGetHost = 21, kParts = 22 };
}  // namespace machine

inline TreflectMetaClass const machineMeta(
    "Machine", machine::kClass, {&partMeta},
    {{"getHost", machine::kGetHost, {}, {"string"}},
     {"parts", machine::kParts, {"string"}, {"sequence<string>"}}},
    {"Host"});
