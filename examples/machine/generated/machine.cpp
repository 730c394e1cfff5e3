// Generated from machine.idl by reflectorb-idl: change that file, not this one.
#include "machine.h"

bool PartSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                            TipprmiStream& out) {
    switch (mc) {
        case part::kGetDescription:
            return serve(part::kClass, cc, mc, in, out, &PartSkeleton::getDescription);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<std::string> PartClient::getDescription() const {
    return treflectCall(*this, part::kClass, part::kGetDescription, &PartSkeleton::getDescription);
}

bool WatchedPartSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                   TipprmiStream& in, TipprmiStream& out) {
    switch (mc) {
        case watchedPart::kGetAlarm:
            return serve(watchedPart::kClass, cc, mc, in, out, &WatchedPartSkeleton::getAlarm);
        case watchedPart::kGetAlarmLimit:
            return serve(watchedPart::kClass, cc, mc, in, out, &WatchedPartSkeleton::getAlarmLimit);
        case watchedPart::kSetAlarmLimit:
            return serve(watchedPart::kClass, cc, mc, in, out, &WatchedPartSkeleton::setAlarmLimit);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<watchedPart::AlarmState> WatchedPartClient::getAlarm() const {
    return treflectCall(*this, watchedPart::kClass, watchedPart::kGetAlarm,
                        &WatchedPartSkeleton::getAlarm);
}

TipprmiResult<unsigned int> WatchedPartClient::getAlarmLimit() const {
    return treflectCall(*this, watchedPart::kClass, watchedPart::kGetAlarmLimit,
                        &WatchedPartSkeleton::getAlarmLimit);
}

TipprmiOutcome<void, watchedPart::BadLimit> WatchedPartClient::setAlarmLimit(
    unsigned int alarmLimit) const {
    return treflectCall(*this, watchedPart::kClass, watchedPart::kSetAlarmLimit,
                        &WatchedPartSkeleton::setAlarmLimit, alarmLimit);
}

namespace watchedPart {

TipprmiStream& operator<<(TipprmiStream& stream, BadLimit const& value) {
    return stream << value.highest;
}

TipprmiStream& operator>>(TipprmiStream& stream, BadLimit& value) {
    return stream >> value.highest;
}

TipprmiStream& operator<<(TipprmiStream& stream, AlarmState const& value) {
    return stream << value.limit << value.raised;
}

TipprmiStream& operator>>(TipprmiStream& stream, AlarmState& value) {
    return stream >> value.limit >> value.raised;
}

}  // namespace watchedPart

bool CpuSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                           TipprmiStream& out) {
    switch (mc) {
        case cpu::kGetLoad:
            return serve(cpu::kClass, cc, mc, in, out, &CpuSkeleton::getLoad);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<unsigned int> CpuClient::getLoad() const {
    return treflectCall(*this, cpu::kClass, cpu::kGetLoad, &CpuSkeleton::getLoad);
}

bool MemorySkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                              TipprmiStream& in, TipprmiStream& out) {
    switch (mc) {
        case memory::kGetTotal:
            return serve(memory::kClass, cc, mc, in, out, &MemorySkeleton::getTotal);
        case memory::kGetFree:
            return serve(memory::kClass, cc, mc, in, out, &MemorySkeleton::getFree);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<std::uint64_t> MemoryClient::getTotal() const {
    return treflectCall(*this, memory::kClass, memory::kGetTotal, &MemorySkeleton::getTotal);
}

TipprmiResult<std::uint64_t> MemoryClient::getFree() const {
    return treflectCall(*this, memory::kClass, memory::kGetFree, &MemorySkeleton::getFree);
}

bool DiskSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                            TipprmiStream& out) {
    switch (mc) {
        case disk::kGetTotal:
            return serve(disk::kClass, cc, mc, in, out, &DiskSkeleton::getTotal);
        case disk::kGetFree:
            return serve(disk::kClass, cc, mc, in, out, &DiskSkeleton::getFree);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<std::uint64_t> DiskClient::getTotal() const {
    return treflectCall(*this, disk::kClass, disk::kGetTotal, &DiskSkeleton::getTotal);
}

TipprmiResult<std::uint64_t> DiskClient::getFree() const {
    return treflectCall(*this, disk::kClass, disk::kGetFree, &DiskSkeleton::getFree);
}

bool NetworkInterfaceSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                        TipprmiStream& in, TipprmiStream& out) {
    switch (mc) {
        case networkInterface::kGetReceivedBytes:
            return serve(networkInterface::kClass, cc, mc, in, out,
                         &NetworkInterfaceSkeleton::getReceivedBytes);
        case networkInterface::kGetSentBytes:
            return serve(networkInterface::kClass, cc, mc, in, out,
                         &NetworkInterfaceSkeleton::getSentBytes);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<std::uint64_t> NetworkInterfaceClient::getReceivedBytes() const {
    return treflectCall(*this, networkInterface::kClass, networkInterface::kGetReceivedBytes,
                        &NetworkInterfaceSkeleton::getReceivedBytes);
}

TipprmiResult<std::uint64_t> NetworkInterfaceClient::getSentBytes() const {
    return treflectCall(*this, networkInterface::kClass, networkInterface::kGetSentBytes,
                        &NetworkInterfaceSkeleton::getSentBytes);
}

bool ProcessSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                               TipprmiStream& in, TipprmiStream& out) {
    switch (mc) {
        case process::kGetPid:
            return serve(process::kClass, cc, mc, in, out, &ProcessSkeleton::getPid);
        case process::kGetResident:
            return serve(process::kClass, cc, mc, in, out, &ProcessSkeleton::getResident);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<unsigned int> ProcessClient::getPid() const {
    return treflectCall(*this, process::kClass, process::kGetPid, &ProcessSkeleton::getPid);
}

TipprmiResult<std::uint64_t> ProcessClient::getResident() const {
    return treflectCall(*this, process::kClass, process::kGetResident,
                        &ProcessSkeleton::getResident);
}

bool MachineSkeleton::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                               TipprmiStream& in, TipprmiStream& out) {
    switch (mc) {
        case machine::kGetHost:
            return serve(machine::kClass, cc, mc, in, out, &MachineSkeleton::getHost);
        case machine::kParts:
            return serve(machine::kClass, cc, mc, in, out, &MachineSkeleton::parts);
        default:
            return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
}

TipprmiResult<std::string> MachineClient::getHost() const {
    return treflectCall(*this, machine::kClass, machine::kGetHost, &MachineSkeleton::getHost);
}

TipprmiResult<machine::Names> MachineClient::parts(std::string const& kind) const {
    return treflectCall(*this, machine::kClass, machine::kParts, &MachineSkeleton::parts, kind);
}
