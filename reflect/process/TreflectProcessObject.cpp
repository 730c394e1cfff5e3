#include "reflect/TreflectProcessObject.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "handler_threads/WithPermission.h"
#include "ipprmi/TipprmiCall.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Immortal.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/TreflectORB.h"
#include "reflect/broker/BrokerLifecycle.h"
#include "reflect/broker/BrokerView.h"
#include "reflect/process/ProcessPublication.h"
#include "reflect/process/ProcessServer.h"
#include "transport/IdInfo.h"

namespace {

/** The one object of the process, as long as somebody wants it. */
class SharedServer {
public:
    /** Never destroyed, since it may be wanted to the end of the process. */
    static SharedServer& instance() {
        static OSWrap::Immortal<SharedServer> server;
        return *server;
    }

    void add() OSW_REQUIRES_PERMISSION {
        if (!server_)
            server_ = std::make_unique<ProcessServer>();
        ++users_;
    }
    void remove() OSW_REQUIRES_PERMISSION {
        if (--users_ == 0)
            server_.reset();
    }
    /** The environment wants it, to the end. Making it may make another broker, which comes here
     * again. */
    void addForEver() OSW_REQUIRES_PERMISSION {
        if (isForEver_)
            return;
        isForEver_ = true;
        try {
            add();
        } catch (...) {
            isForEver_ = false;  // the next broker tries again
            throw;
        }
    }
    void join(TreflectORB& orb) OSW_REQUIRES_PERMISSION {
        if (server_)
            server_->join(orb);
    }

private:
    std::unique_ptr<ProcessServer> server_ OSW_GUARDED_BY_PERMISSION;
    unsigned int users_ OSW_GUARDED_BY_PERMISSION = 0;
    bool isForEver_ OSW_GUARDED_BY_PERMISSION = false;
};

/** Whether there is, was or will be such an object: then new brokers have to do with it. Set before
 * the table of the brokers is read; who makes a broker writes it there before reading this. So one
 * of the two sees the other. */
std::atomic<bool> isOfUse{false};

bool isAskedFor() {
    char const* const value = std::getenv("REFLECTORB_PROCESS_OBJECT");
    return value && std::strcmp(value, "1") == 0;
}

}  // namespace

void processobject::brokerPublished(TreflectORB& orb) {
    static bool const asked = isAskedFor();
    if (!asked && !isOfUse)
        return;
    OSWrap::DisableCancelStateGuard const noCancel(true);
    WithPermission const permission;
    if (!BrokerView::isThere(orb))
        return;  // deleted while the permission was waited for
    bool const isDone = OSWrap::withMemory([&orb] {
        handlerthreads::assertPermission();
        isOfUse = true;
        SharedServer::instance().join(orb);
        if (asked)
            SharedServer::instance().addForEver();
    });
    if (!isDone)
        REFLECTORB_LOG(2, "TreflectProcessObject", "No memory for the process object at ORB 0x%08X",
                       orb.termId().value());
}

TreflectProcessObject::TreflectProcessObject() {
    TreflectORB::getInstance(NSID_UNIT);
    WithPermission const permission;
    isOfUse = true;
    SharedServer::instance().add();
}

TreflectProcessObject::~TreflectProcessObject() {
    if (BrokerLifecycle::instance().isAbandoned())
        return;
    OSWrap::DisableCancelStateGuard const noCancel(true);
    WithPermission const permission;
    SharedServer::instance().remove();
}

std::string TreflectProcessObject::identifier() {
    return "process/" + Transport::IdInfo::instance().getActor() + "." + std::to_string(getpid());
}

TreflectMetaClass const& TreflectProcessObject::metaClass() {
    static TreflectMetaClass const& meta = []() -> TreflectMetaClass const& {
        std::vector<TreflectMetaClass::Operation> operations;
        std::vector<TreflectMetaClass::Attribute> attributes;
        ProcessServer::describe(operations, attributes);
        return *new TreflectMetaClass("ReflectProcess", processobject::kClass, {},
                                      std::move(operations), std::move(attributes));
    }();
    return meta;
}

// ---- The handle --------------------------------------------------------------------------------

using namespace processobject;

TreflectProcessClient TreflectProcessClient::of(TreflectOrbId broker) {
    TreflectORB* const orb = TreflectORB::getInstance(NSID_UNIT);
    unsigned int const id =
        orb ? orb->resolve(orb->convertId(broker), ProcessServer::identifierAt(broker)) : 0;
    if (id == 0)
        return {};
    char name[32];
    std::snprintf(name, sizeof name, "rmi_%X_%X", broker.value(), id);
    return TreflectProcessClient(TipprmiOID(name, broker.namespaceId()));
}

TipprmiResult<Identity> TreflectProcessClient::getIdentity() const {
    return tipprmiCall<Identity>(*this, kClass, kGetIdentity);
}

TipprmiResult<Usage> TreflectProcessClient::getUsage() const {
    return tipprmiCall<Usage>(*this, kClass, kGetUsage);
}

TipprmiResult<std::vector<Traffic>> TreflectProcessClient::getTraffic() const {
    return tipprmiCall<std::vector<Traffic>>(*this, kClass, kGetTraffic);
}

TipprmiResult<std::vector<Call>> TreflectProcessClient::getCalls() const {
    return tipprmiCall<std::vector<Call>>(*this, kClass, kGetCalls);
}

TipprmiResult<Permission> TreflectProcessClient::getPermission() const {
    return tipprmiCall<Permission>(*this, kClass, kGetPermission);
}

TipprmiResult<std::vector<Observation>> TreflectProcessClient::getObservations() const {
    return tipprmiCall<std::vector<Observation>>(*this, kClass, kGetObservations);
}

TipprmiResult<int> TreflectProcessClient::getLogThreshold() const {
    return tipprmiCall<int>(*this, kClass, kGetLogThreshold);
}

TipprmiResult<void> TreflectProcessClient::setLogThreshold(int level) const {
    return tipprmiCall<void>(*this, kClass, kSetLogThreshold, level);
}

TipprmiResult<std::vector<KnownClass>> TreflectProcessClient::classes() const {
    return tipprmiCall<std::vector<KnownClass>>(*this, kClass, kClasses);
}

TipprmiResult<std::vector<TreflectClassDescription>> TreflectProcessClient::describe(
    unsigned int classId) const {
    return tipprmiCall<std::vector<TreflectClassDescription>>(*this, kClass, kDescribe, classId);
}

TipprmiResult<std::vector<TreflectClassDescription>> TreflectProcessClient::describeNamed(
    std::string const& className) const {
    return tipprmiCall<std::vector<TreflectClassDescription>>(*this, kClass, kDescribeNamed,
                                                              className);
}

TipprmiResult<std::vector<ServedObject>> TreflectProcessClient::objects(unsigned int broker,
                                                                        unsigned int after,
                                                                        unsigned int most) const {
    return tipprmiCall<std::vector<ServedObject>>(*this, kClass, kObjects, broker, after, most);
}

TipprmiResult<LogRecord> TreflectProcessClient::getLastRecord() const {
    return tipprmiCall<LogRecord>(*this, kClass, kGetLastRecord);
}

TipprmiResult<std::vector<LogRecord>> TreflectProcessClient::log(std::uint64_t after) const {
    return tipprmiCall<std::vector<LogRecord>>(*this, kClass, kLog, after);
}
