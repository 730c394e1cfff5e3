#include "web/Watches.h"

#include <fmt/format.h>

#include "Json.h"
#include "Members.h"

namespace {

/** Why some members are not watched. */
std::string missingText(std::vector<std::string> const& members) {
    if (members.empty())
        return {};
    return fmt::format("it has not answered that these are observed: {}", fmt::join(members, ", "));
}

}  // namespace

std::string idOf(Place place) {
    return fmt::format("{:x}:{:x}", place.broker, place.id);
}

WatchedValues::WatchedValues(Found const& found, Inbox& inbox) : inbox_(inbox) {
    TreflectObject const object = handleOn(found.place);
    std::vector<std::string> missing;
    for (TreflectMetaAttribute* const meta : attributesOf(classOf(object))) {
        if (meta->metaOperGet() && !watch(*meta->getTied(&object), found, meta->name()))
            missing.push_back(meta->name());
    }
    missing_ = missingText(missing);
}

bool WatchedValues::watch(TreflectAttribute& attribute, Found const& found,
                          std::string const& name) {
    std::string const id = idOf(found.place);
    std::string const quoted = Json(name).dump(-1, ' ', false, Json::error_handler_t::replace);
    auto const source = std::make_shared<Inbox::Source>(
        Inbox::Source{id + "/" + name, found.name, "[\"" + id + "\"," + quoted + ",",
                      attribute.operGet().meta()->resultTypes()});
    sources_.push_back(source);
    watches_.push_back(std::make_unique<TreflectAttributeWatch>(
        attribute,
        [&inbox = inbox_, source](TipprmiAny const& value) { inbox.leave(source, value); }));
    return !watches_.back()->isError();
}

void WatchedValues::stop() const {
    for (Inbox::SourcePtr const& source : sources_)
        inbox_.end(*source);
}

/** An observer that the object has not answered about is let go of: should it be registered after
 * all, the object forgets it when it wants to tell it something. */
WatchedCalls::WatchedCalls(Found const& found, Events& events, WatchedCalls const* earlier) {
    if (earlier)
        watched_ = earlier->watched_;
    std::vector<std::string> missing;
    TreflectObject const object = handleOn(found.place);
    for (std::string const& name : membersOf(object, "*", Purpose::kWatch).first) {
        if (watched_.count(name) != 0)
            continue;
        auto const watched =
            std::make_shared<Watched>(object, found.name, events, idOf(found.place));
        if (watched->watchCalls(name))
            watched_.emplace(name, watched);
        else
            missing.push_back(name);
    }
    missing_ = missingText(missing);
}

WatchedCalls::~WatchedCalls() {
    for (auto const& one : watched_) {
        if (one.second.use_count() == 1)
            one.second->stop();
    }
}

void WatchedCalls::stop() const {
    for (auto const& one : watched_)
        one.second->stop();
}
