#include "Objects.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "Failure.h"
#include "Wildcard.h"

namespace {

using processobject::ServedObject;

constexpr std::size_t kDeepest = 100;  // a tree that is made wrongly may have itself in it

std::vector<Place> childrenOf(TreflectObject const& object) {
    TipprmiSequence<TreflectObject, 0u> const children = object.getChilds();
    std::vector<Place> places;
    for (unsigned int i = 0; i < children.getLength(); ++i)
        places.push_back(placeOf(children[i]));
    return places;
}

/** All that the broker of a process serves; nothing when it does not answer to the end. */
std::optional<std::vector<ServedObject>> servedBy(TreflectProcessClient const& process,
                                                  unsigned int broker) {
    constexpr unsigned int kPage = 4096;
    std::vector<ServedObject> all;
    for (unsigned int after = 0;;) {
        TipprmiResult<std::vector<ServedObject>> const page = process.objects(broker, after, kPage);
        if (!page)
            return std::nullopt;
        all.insert(all.end(), page.value().begin(), page.value().end());
        if (page.value().size() < kPage)
            return all;
        after = all.back().id;
    }
}

using Nodes = std::vector<std::pair<Place, Node>>;

/** All objects of a process, with their children. */
std::optional<Nodes> objectsOf(TreflectProcessClient const& client,
                               std::vector<TreflectOrbId> const& brokers) {
    Nodes nodes;
    for (TreflectOrbId const broker : brokers) {
        std::optional<std::vector<ServedObject>> const served = servedBy(client, broker.value());
        if (!served)
            return std::nullopt;
        for (ServedObject const& object : *served) {
            Node node{object.name, identifierText(object.identifier, broker.value()),
                      object.className, object.classId, object.classId != 0};
            Place const place{broker.value(), object.id};
            if (node.isReflective)
                node.children = childrenOf(handleOn(place));
            nodes.emplace_back(place, std::move(node));
        }
    }
    return nodes;
}

}  // namespace

TreflectObject handleOn(Place place) {
    TreflectOrbId const broker(place.broker);
    return TreflectObject(
        TipprmiOID(fmt::format("rmi_{:X}_{:X}", place.broker, place.id), broker.namespaceId()));
}

std::string identifierText(std::string const& identifier, unsigned int broker) {
    bool const isOfNode = TreflectOrbId(broker).namespaceId() == NSID_NODE;
    return identifier + (isOfNode && !identifier.empty() ? "@node" : "");
}

Place placeOf(TreflectObject const& object) {
    TreflectObjectStub const* const stub = object.getStub_();
    return stub ? Place{stub->orbId().value(), stub->getInternalOID()} : Place{};
}

// ---- Forest ------------------------------------------------------------------------------------

void Forest::connect() {
    for (auto const& parent : nodes_) {
        for (Place const child : parent.second.children) {
            auto const found = nodes_.find(child);
            if (found != nodes_.end())
                found->second.parent = parent.first;
        }
    }
}

Node const* Forest::find(Place place) const {
    auto const found = nodes_.find(place);
    return found == nodes_.end() ? nullptr : &found->second;
}

std::string Forest::nameOf(Place place) const {
    Node const* node = find(place);
    if (!node || !node->isReflective)
        return node ? node->identifier : "";
    std::string name;
    for (std::size_t depth = 0; node && depth < kDeepest; ++depth) {
        name = "/" + node->name + name;
        node = node->parent ? find(*node->parent) : nullptr;
    }
    return name;
}

std::set<Place> Forest::unknown() const {
    std::set<Place> unknown;
    for (auto const& node : nodes_) {
        for (Place const child : node.second.children) {
            if (child.isSomewhere() && nodes_.count(child) == 0)
                unknown.insert(child);
        }
    }
    return unknown;
}

// ---- Objects -----------------------------------------------------------------------------------

/** An identifier with its namespace, which reading a TipprmiOID leaves out. */
struct Objects::Identifier {
    std::string text;
    int nameSpace = NSID_UNIT;

    friend TipprmiStream& operator>>(TipprmiStream& stream, Identifier& identifier) {
        return stream >> identifier.text >> identifier.nameSpace;
    }
};

void Objects::complainOf(std::string const& what) const {
    std::string silent;
    for (Process const& process : processes_) {
        if (asking_.isGivenUp(process.broker()))
            silent += (silent.empty() ? "" : ", ") + process.name();
    }
    if (silent.empty())
        throw Failure(ExitCode::kNotThere, what);
    throw Failure(ExitCode::kTimedOut, what + "; no answer in time: " + silent);
}

std::vector<Found> Objects::find(std::string const& name) {
    if (name.empty() || name == "/")
        throw Failure(ExitCode::kWrongUse, "\"" + name + "\" is no name of an object");
    hasSoughtPattern_ = hasSoughtPattern_ || Wildcard::isIn(name);
    if (Wildcard::isIn(name))
        return findPattern(name);
    if (auto const known = index_.find(name); known != index_.end())
        return {{name, known->second}};
    return {{name, name[0] == '/' ? findPath(name) : findIdentifier(name)}};
}

std::vector<Found> Objects::findOrComplain(std::string const& name, Output& output,
                                           ExitCode& outcome) {
    try {
        return find(name);
    } catch (Failure const& why) {
        output.complain(why.what());
        outcome = outcome == ExitCode::kDone ? why.outcome() : outcome;
        return {};
    }
}

Place Objects::findIdentifier(std::string const& text) {
    TipprmiAny value;
    if (!TreflectParameterType("oid").parse(text, value))
        throw Failure(ExitCode::kWrongUse, "\"" + text + "\" is no identifier");
    Identifier identifier;
    value.extract(identifier);
    Place const place = search(identifier);
    if (!place.isSomewhere())
        complainOf("nobody serves \"" + text + "\"");
    return place;
}

/** Each broker of the namespace is asked for itself, and nobody waits for those that are slow. */
Place Objects::search(Identifier const& identifier) {
    auto const ns = static_cast<NamespaceId>(identifier.nameSpace);
    TreflectORB* const orb =
        ns == NSID_UNIT || ns == NSID_NODE ? TreflectORB::getInstance(ns) : nullptr;
    if (!orb)
        return {};
    std::vector<TreflectOrbId> brokers;
    for (Process const& process : processes_) {
        for (TreflectOrbId const broker : process.brokers) {
            if (broker.namespaceId() == ns)
                brokers.push_back(broker);
        }
    }
    TipprmiOID const oid(identifier.text, ns);
    auto const answers = asking_.each<unsigned int>(
        brokers,
        [=](std::size_t number) { return orb->resolve(orb->convertId(brokers[number]), oid); },
        [](unsigned int id) { return id != 0; });
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (answers[i] && answers[i].value != 0)
            return {brokers[i].value(), answers[i].value};
    }
    return {};
}

/** The first name of a path is the identifier of the object at the root, or its name, where
 * processes tell what they serve. Each object tells of its own children. */
Place Objects::findPath(std::string const& path) {
    std::istringstream names(path.substr(1));
    std::string name;
    std::getline(names, name, '/');
    Place place = search({name, NSID_UNIT});
    if (!place.isSomewhere()) {
        std::vector<Found> const found = findPattern(path);
        return found.front().place;
    }
    for (std::string at = "/" + name; std::getline(names, name, '/'); at += "/" + name) {
        place = child(place, name);
        if (!place.isSomewhere())
            complainOf(at + " has no child \"" + name + "\"");
    }
    return place;
}

std::vector<Found> Objects::findPattern(std::string const& pattern) {
    Wildcard const wildcard(pattern);
    Forest const& forest = all();
    std::vector<Found> found;
    for (auto const& entry : forest.nodes()) {
        std::string const name =
            pattern[0] == '/' ? forest.nameOf(entry.first) : entry.second.identifier;
        if (!name.empty() && wildcard.matches(name))
            found.push_back({name, entry.first});
    }
    if (found.empty())
        complainOf("there is no \"" + pattern + "\"");
    std::sort(found.begin(), found.end(),
              [](Found const& a, Found const& b) { return a.name < b.name; });
    return found;
}

// Each name by itself asks every object on its way for all of its children.
void Objects::expect(std::size_t names) {
    constexpr std::size_t kFew = 4;
    if (names <= kFew || !index_.empty())
        return;
    for (auto const& [place, node] : all().nodes()) {
        if (!node.identifier.empty())
            index_.emplace(node.identifier, place);
        if (std::string const name = all().nameOf(place); !name.empty() && node.answers)
            index_.emplace(name, place);
    }
}

Forest const& Objects::all() {
    if (all_)
        return *all_;
    all_.emplace();
    // Each question takes the brokers of its own process: that of the unit leads to it.
    std::map<unsigned int, std::vector<TreflectOrbId>> brokersOf;
    std::vector<TreflectOrbId> first;
    for (Process const& process : processes_) {
        brokersOf[process.broker().value()] = process.brokers;
        first.push_back(process.broker());
    }
    auto const answers =
        asking_.each<Nodes>(first, [first, brokersOf](std::size_t number) -> std::optional<Nodes> {
            TreflectProcessClient const client = TreflectProcessClient::of(first[number]);
            if (!client.isConnected())
                return std::nullopt;
            return objectsOf(client, brokersOf.at(first[number].value()));
        });
    for (std::size_t i = 0; i < answers.size(); ++i) {
        missing_.note(processes_[i], answers[i]);
        for (auto const& node : answers[i].value)
            all_->add(node.first, node.second);
    }
    complete(*all_);
    return *all_;
}

Forest Objects::below(Place place) {
    Forest forest;
    Node const node = look({place}).front().value;
    forest.add(place, node);
    complete(forest);
    return forest;
}

/** Looks at children that nobody has told of, one generation after the other. */
void Objects::complete(Forest& forest) {
    for (std::size_t depth = 0; depth < kDeepest; ++depth) {
        std::set<Place> const unknown = forest.unknown();
        if (unknown.empty())
            break;
        std::vector<Place> const places(unknown.begin(), unknown.end());
        std::vector<Answer<Node>> const nodes = look(places);
        for (std::size_t i = 0; i < places.size(); ++i) {
            Node node = nodes[i].value;
            node.answers = node.answers && nodes[i];
            forest.add(places[i], std::move(node));
        }
    }
    forest.connect();
}

/** Those of one broker are asked one after the other, by one question. */
std::vector<Answer<Node>> Objects::look(std::vector<Place> const& places) {
    std::map<unsigned int, std::vector<std::size_t>> ofBroker;
    for (std::size_t i = 0; i < places.size(); ++i)
        ofBroker[places[i].broker].push_back(i);
    std::vector<TreflectOrbId> brokers;
    std::vector<std::vector<std::size_t>> numbers;
    for (auto const& entry : ofBroker) {
        brokers.emplace_back(entry.first);
        numbers.push_back(entry.second);
    }
    using Looks = std::vector<Node>;
    auto const answers = asking_.each<Looks>(brokers, [places, numbers](std::size_t broker) {
        Looks looks;
        for (std::size_t const number : numbers[broker]) {
            TreflectObject const object = handleOn(places[number]);
            Node node;
            node.name = object.getRelName();
            TreflectMetaObject const* const meta = object.meta();
            node.className = meta ? meta->name() : "";
            node.classId = meta ? meta->getClassId() : 0;
            node.children = childrenOf(object);
            node.answers = !node.name.empty() || node.classId != 0;
            looks.push_back(std::move(node));
        }
        return std::optional<Looks>(std::move(looks));
    });
    std::vector<Answer<Node>> all(places.size());
    for (std::size_t broker = 0; broker < brokers.size(); ++broker) {
        for (std::size_t i = 0; i < numbers[broker].size(); ++i) {
            Answer<Node>& answer = all[numbers[broker][i]];
            bool const isTold = i < answers[broker].value.size();
            answer.state = isTold ? Answer<Node>::State::kAnswered : Answer<Node>::State::kTimedOut;
            if (isTold)
                answer.value = answers[broker].value[i];
        }
    }
    return all;
}

Place Objects::child(Place parent, std::string const& name) {
    std::vector<Place> children;
    for (Answer<std::vector<Place>> const& answer : asking_.each<std::vector<Place>>(
             {parent.broker}, [parent](std::size_t) { return childrenOf(handleOn(parent)); }))
        children = answer.value;
    std::map<unsigned int, std::vector<Place>> ofBroker;
    for (Place const place : children)
        ofBroker[place.broker].push_back(place);
    std::vector<TreflectOrbId> brokers;
    std::vector<std::vector<Place>> places;
    for (auto const& entry : ofBroker) {
        brokers.emplace_back(entry.first);
        places.push_back(entry.second);
    }
    auto const answers = asking_.each<Place>(
        brokers,
        [places, name](std::size_t broker) {
            for (Place const place : places[broker]) {
                if (handleOn(place).getRelName() == name)
                    return place;
            }
            return Place{};
        },
        [](Place const& place) { return place.isSomewhere(); });
    for (Answer<Place> const& answer : answers) {
        if (answer.value.isSomewhere())
            return answer.value;
    }
    return {};
}
