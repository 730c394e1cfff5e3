#pragma once

#include <memory>
#include <string>

#include "oswrap/Mutex.h"
#include "platform/transport/local/ReceiverOwner.h"
#include "platform/transport/local/Rendezvous.h"
#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Transport {

class Receiver;
class TerminationImpl;

/** The driver's half of a termination of this process: its address, from construction to
 * destruction, and its receiving thread, from `start` to `stop`. Any thread. */
class LocalTermination final : public ReceiverOwner, public PresenceListener {
public:
    LocalTermination(TerminationImpl& owner, GroupId group, std::string const& name);
    /** The termination has been stopped. */
    ~LocalTermination();
    LocalTermination(LocalTermination const&) = delete;
    LocalTermination& operator=(LocalTermination const&) = delete;

    TerminationId id() const { return id_; }
    /** Shows the termination and starts its thread; false, with a log line, on failure, when it has
     * been started before, or when it has no address. */
    bool start();
    void stop();
    bool sendAgain(AddressedMessage const& message);
    /** See TerminationImpl. */
    void readByWorkers() { hasWorkers_ = true; }

    void arrived(TerminationId id) override;
    void departed(TerminationId id) override;
    void received(AddressedMessage const& message) override;
    void cameBack(AddressedMessage const& message, Reached reached) override;
    bool hasWorkers() const override { return hasWorkers_; }

private:
    bool goVisible(std::shared_ptr<Receiver> const& receiver);
    std::shared_ptr<Receiver> makeReceiver();
    void release(std::shared_ptr<Receiver> const& stopped);
    std::shared_ptr<Receiver> receiver();

    TerminationImpl& owner_;
    TerminationId const id_;
    bool hasWorkers_ = false;  // constant from `start` on
    OSWrap::Mutex mutex_;      // a leaf: nothing is locked under it
    std::shared_ptr<Receiver> receiver_ OSW_GUARDED_BY(mutex_);  // until it has been stopped
    bool started_ OSW_GUARDED_BY(mutex_) = false;
};

}  // namespace Transport
