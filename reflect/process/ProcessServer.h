#pragma once

#include <map>
#include <memory>

#include "handler_threads/RunPermission.h"
#include "logging/RecentRecords.h"
#include "reflect/TreflectInterface.h"
#include "reflect/TreflectProcessObject.h"
#include "reflect/broker/BrokerView.h"

/** The process object itself: serves what TreflectProcessClient asks. One per process; built, used
 * and destroyed under the run permission. */
class ProcessServer final : public TreflectServerObject {
public:
    ProcessServer() OSW_REQUIRES_PERMISSION;
    ~ProcessServer() override;

    /** A broker of this process is new: the object is found by its id, and serves again if it was
     * without one. Nothing when that is so already. */
    void join(TreflectORB& orb) OSW_REQUIRES_PERMISSION;

    /** The identifier by which the process object is found at one broker. */
    static TipprmiOID identifierAt(TreflectOrbId broker);
    /** The rows of its table. */
    static void describe(std::vector<TreflectMetaClass::Operation>& operations,
                         std::vector<TreflectMetaClass::Attribute>& attributes);

    unsigned int getServerClassId() const override { return processobject::kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override;
    void registerObserver(unsigned int kind, unsigned int const& cc, unsigned int const& mc,
                          TreflectObserverClient const& client) override;
    void unRegisterObserver(TreflectObserverClient const& client) override;
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;

    processobject::Identity getIdentity() const;
    processobject::Usage getUsage() const;
    std::vector<processobject::Traffic> getTraffic() const;
    std::vector<processobject::Call> getCalls() const;
    processobject::Permission getPermission() const;
    std::vector<processobject::Observation> getObservations() const;
    int getLogThreshold() const;
    TipprmiResult<void> setLogThreshold(int level);
    std::vector<processobject::KnownClass> classes() const;
    TipprmiResult<std::vector<TreflectClassDescription>> describeClass(unsigned int classId) const;
    TipprmiResult<std::vector<TreflectClassDescription>> describeNamed(
        std::string const& className) const;
    std::vector<processobject::ServedObject> objects(unsigned int broker, unsigned int after,
                                                     unsigned int most) const;
    processobject::LogRecord getLastRecord() const;
    std::vector<processobject::LogRecord> log(std::uint64_t after) const;

private:
    class Door;
    static constexpr auto interface();

    Logging::RecentRecords const records_;
    /// By namespace.
    std::map<NamespaceId, std::unique_ptr<Door>> doors_ OSW_GUARDED_BY_PERMISSION;
};
