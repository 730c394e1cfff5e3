// What is done with the members of an object, told as it happens.
#pragma once

#include <reflect.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CallObserver.h"
#include "Events.h"
#include "Objects.h"
#include "Values.h"

/** An object, members of which are observed. Made under the run permission. */
class Watched {
public:
    Watched(Target const& target, Events& events)
        : Watched(handleOn(target.object.place), target.object.name, events) {}
    /** `name`: by which it is told; `id`: likewise, of its calls, where several may have the name.
     */
    Watched(TreflectObject const& object, std::string const& name, Events& events,
            std::string const& id = {})
        : object_(object), name_(name), id_(id), events_(events) {}
    ~Watched() { stop(); }
    Watched(Watched const&) = delete;
    Watched& operator=(Watched const&) = delete;

    /** Tells the value that an attribute has, and each that it gets. */
    bool watchValue(std::string const& name);
    /** Tells each call of an operation and its end. */
    bool watchCalls(std::string const& name);
    /** Forbids each call of an operation. */
    bool veto(std::string const& name);
    /** Tells nothing from now on, however long the object takes to let its observers go. Any
     * thread.
     */
    void stop() { isOver_ = true; }

    TreflectObject const& object() const { return object_; }

private:
    class Observer;
    /** What is to be done at a call, with its arguments or its results; false forbids it. */
    using Reaction = std::function<bool(Values const&)>;

    Observer& observe(Reaction reaction);
    /** Makes of values what is told of them: on the thread that writes it. */
    using Teller = std::function<void(Event&, Values const&)>;
    using EndTeller = std::function<void(Event&, Values const&, Fate const&)>;
    /** Keeps values; what is to be told of them is made when somebody wants to read it. */
    void addLater(Values const& values, bool counts, Teller const& tell) const;
    Teller callTeller(char const* word, char const* event,
                      TreflectMetaOperation const& operation) const;
    EndTeller endTeller(TreflectMetaOperation const& operation) const;
    static void addCaller(Event& event, std::string const& caller, unsigned int number);
    static void addId(Event& event, std::string const& id);
    static Json json(std::string const& object, char const* event, std::string const& member,
                     char const* valuesName, Json const& values);

    TreflectObject const object_;
    std::string const name_;
    std::string const id_;
    Events& events_;
    std::atomic<bool> isOver_{false};
    std::vector<std::unique_ptr<TreflectAttributeWatch>> values_;
    std::vector<std::unique_ptr<TreflectObserver>> observers_;
};

enum class Purpose { kWatch, kVeto };

/** Which of its members are meant: operations, attributes. Those that read and write attributes
 * only when they are named. Under the run permission. */
std::pair<std::vector<std::string>, std::vector<std::string>> membersOf(
    TreflectObject const& object, std::string const& pattern, Purpose purpose);
