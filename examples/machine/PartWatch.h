// Follows the parts of the machine by notice.
#pragma once

#include <handler_threads.h>
#include <reflect.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

/**
 * Knows at any time which parts the machine has, and tells what has come and gone, without asking
 * anybody: the brokers tell when objects of the machine's classes are made and destroyed anywhere,
 * and when a broker, with all its objects, goes away. Used under the run permission.
 */
class PartWatch {
public:
    struct Part {
        std::string name;
        TreflectObject object;
    };

    /** Of the objects of this unit, or of the whole node. Knows all that exists when it returns. */
    explicit PartWatch(NamespaceId nameSpace = NSID_UNIT);
    ~PartWatch();
    PartWatch(PartWatch const&) = delete;
    PartWatch& operator=(PartWatch const&) = delete;

    /** The parts of a class, in the order of their identifiers. A copy: the parts may change during
     * any call. */
    std::vector<Part> parts(unsigned int classId) const;
    /** Waits until there is a machine; false when there is none for so many seconds. */
    bool awaitMachine(unsigned int seconds);
    /** What has come and gone since the last question, a line each. */
    std::vector<std::string> takeNews();

private:
    class Follower;
    class BrokerFollower;

    void follow(unsigned int classId);
    void add(unsigned int classId, TreflectObject const& object);
    void remove(unsigned int classId, TreflectObject const& object);
    void removeUnreachable();

    TreflectORB& orb_;  // of the namespace

    // All guarded by the run permission.
    std::map<unsigned int, std::map<std::string, Part>> parts_;  // by class and identifier
    std::vector<std::string> news_;
    TreflectConditionVar changed_;
    std::vector<std::unique_ptr<Follower>> followers_;
    std::unique_ptr<BrokerFollower> brokers_;
};
