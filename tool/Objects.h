// Objects by their names.
#pragma once

#include <reflect.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Asking.h"
#include "Failure.h"
#include "Processes.h"

/** Where an object is: a value that can be kept without the run permission. */
struct Place {
    unsigned int broker = 0;
    unsigned int id = 0;  // in that broker

    bool isSomewhere() const { return id != 0; }
    friend bool operator<(Place a, Place b) {
        return a.broker != b.broker ? a.broker < b.broker : a.id < b.id;
    }
    friend bool operator==(Place a, Place b) { return a.broker == b.broker && a.id == b.id; }
};

/** A handle on what is at a place, and the place of a handle's object; under the run permission. */
TreflectObject handleOn(Place place);
/** An identifier in a broker, as it is written: "lamp", or "lamp@node" for one of the whole node.
 */
std::string identifierText(std::string const& identifier, unsigned int broker);
Place placeOf(TreflectObject const& object);
/** An identifier in a broker, as it is written: "lamp", or "lamp@node" for one of the whole node.
 */
std::string identifierText(std::string const& identifier, unsigned int broker);

/** What is known of an object. A value. */
struct Node {
    std::string name;        // its own in the tree
    std::string identifier;  // empty when it has none, or it is not known
    std::string className;   // empty when it is not known
    unsigned int classId = 0;
    bool isReflective = true;
    bool answers = true;
    std::vector<Place> children = {};
    std::optional<Place> parent = {};
};

/** Objects and their trees of names. A value. */
class Forest {
public:
    /** Enters an object; one that is there is replaced. */
    void add(Place place, Node node) { nodes_[place] = std::move(node); }
    /** Notes who is whose child, once all are there. */
    void connect();

    std::map<Place, Node> const& nodes() const { return nodes_; }
    Node const* find(Place place) const;
    /** "/" and the names from a root downwards; the identifier of what is not reflective. */
    std::string nameOf(Place place) const;
    /** Children of which nothing is known yet. */
    std::set<Place> unknown() const;

private:
    std::map<Place, Node> nodes_;
};

/** An object that was found, and the name by which it is told. A value. */
struct Found {
    std::string name;
    Place place;
};

/** Something of an object that is meant. A value. */
struct Target {
    Found object;
    std::string member = {};   // or a pattern
    bool isOfPattern = false;  // one object of several: it need not have the member
};
using Targets = std::vector<Target>;

/**
 * Finds objects, without any class. No object is asked for what it would have to ask others for,
 * such as its absolute name: if they hang, its process would end with theirs. So the tool goes from
 * object to object by itself. The main thread asks.
 */
class Objects {
public:
    Objects(Asking& asking, Processes const& processes) : asking_(asking), processes_(processes) {}

    /** Those that a name or a pattern tells, at least one; else throws a Failure. */
    std::vector<Found> find(std::string const& name);
    /** The same of one name among several: complains when there is none, which is none then; the
     * first failure is the outcome. */
    std::vector<Found> findOrComplain(std::string const& name, Output& output, ExitCode& outcome);
    /** Says how many names are about to be looked for: many are looked up in `all`. */
    void expect(std::size_t names);
    /** Everything that processes with process object serve, and what is below it elsewhere. Asked
     * once. */
    Forest const& all();
    /** Has `all` ask again. */
    void forget() {
        all_.reset();
        index_.clear();
        missing_ = {};
    }
    /** Of which processes something is missing in `all`. */
    Missing const& missing() const { return missing_; }
    /** Whether a pattern that was looked for may mean objects of those who have not answered. */
    bool mayMissAny() const { return hasSoughtPattern_ && missing_.isAnySilent(); }
    /** An object and what is below it. */
    Forest below(Place place);
    /** The child of an object; nowhere if there is none. */
    Place child(Place parent, std::string const& name);

private:
    struct Identifier;

    Place findIdentifier(std::string const& text);
    Place search(Identifier const& identifier);
    Place findPath(std::string const& path);
    std::vector<Found> findPattern(std::string const& pattern);
    void complete(Forest& forest);
    std::vector<Answer<Node>> look(std::vector<Place> const& places);
    [[noreturn]] void complainOf(std::string const& what) const;

    Asking& asking_;
    Processes const& processes_;
    std::optional<Forest> all_;
    std::map<std::string, Place> index_;  // of names and identifiers; empty while it is not wanted
    Missing missing_;
    bool hasSoughtPattern_ = false;
};
