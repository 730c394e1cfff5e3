#include "web/Board.h"

#include <array>

#include "Json.h"

namespace {

constexpr std::array<char const*, 4> kNames = {"objects", "values", "processes", "views"};

void append(std::string& list, std::string const& json) {
    if (!list.empty())
        list += ',';
    list += json;
}

std::string quoted(std::string const& key) {
    return Json(key).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void appendMember(std::string& object, std::string const& name, std::string const& json) {
    append(object, "\"" + name + "\":" + json);
}

}  // namespace

void Board::put(Kind kind, std::string const& key, std::string json, std::string const& object) {
    auto content = std::make_shared<Content const>(Content{kind, key, object, std::move(json)});
    std::lock_guard<std::mutex> const lock(mutex_);
    auto const found = places_.find({kind, key});
    if (found == places_.end()) {
        entries_.push_back({std::move(content), ++version_});
        places_[{kind, key}] = std::prev(entries_.end());
        return;
    }
    Entry& entry = *found->second;
    if (entry.content->json == content->json)
        return;
    gone_ -= entry.isGone();
    entry = {std::move(content), ++version_};
    entries_.splice(entries_.end(), entries_, found->second);
}

void Board::remove(Kind kind, std::string const& key) {
    std::lock_guard<std::mutex> const lock(mutex_);
    auto const found = places_.find({kind, key});
    if (found == places_.end() || found->second->isGone())
        return;
    *found->second = {std::make_shared<Content const>(Content{kind, key, {}, {}}), ++version_};
    entries_.splice(entries_.end(), entries_, found->second);
    if (++gone_ > kMostGone)
        forgetOldest();
}

void Board::forgetOldest() {
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        if (!entry->isGone())
            continue;
        forgotten_ = entry->version;
        places_.erase({entry->content->kind, entry->content->key});
        entries_.erase(entry);
        --gone_;
        return;
    }
}

void Board::forgetValues(std::string const& keyBegin) {
    std::lock_guard<std::mutex> const lock(mutex_);
    auto place = places_.lower_bound({Kind::kValue, keyBegin});
    while (place != places_.end() && place->first.first == Kind::kValue &&
           place->first.second.compare(0, keyBegin.size(), keyBegin) == 0) {
        entries_.erase(place->second);
        place = places_.erase(place);
    }
}

void Board::addEvent(std::string const& object, std::string json) {
    auto content =
        std::make_shared<Content const>(Content{Kind::kView, {}, object, std::move(json)});
    std::lock_guard<std::mutex> const lock(mutex_);
    events_.push_back({std::move(content), ++version_});
    if (events_.size() > kMostEvents) {
        firstEvent_ = events_.front().version;
        events_.pop_front();
    }
}

void Board::publish() {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (published_ == version_)
        return;
    published_ = version_;
    changed_.notify_all();
}

void Board::wait(Version since, std::chrono::milliseconds most) const {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, most, [&] { return isClosed_ || published_ > since; });
}

bool Board::isWanted(Content const& entry, Wish const& wish) {
    switch (entry.kind) {
        case Kind::kObject:
            return true;
        case Kind::kValue:
            return wish.values && wish.values(entry.object);
        case Kind::kProcess:
        case Kind::kView:
            return wish.processes;
    }
    return false;
}

Board::News Board::newsSince(Version since) const {
    News news;
    news.isAfresh = since == 0 || since < forgotten_ || since > version_;
    news.hasMissed = since != 0 && (news.isAfresh || since < firstEvent_);
    Version const from = news.isAfresh ? 0 : since;
    for (auto entry = entries_.rbegin(); entry != entries_.rend() && entry->version > from; ++entry)
        news.entries.push_back(entry->content);
    for (auto event = events_.rbegin(); event != events_.rend() && event->version > from; ++event)
        news.events.push_back(event->content);
    return news;
}

void Board::tellEntries(News const& news, Wish const& wish, std::string& json) {
    std::array<std::string, kNames.size()> there;
    std::array<std::string, kNames.size()> gone;
    for (auto entry = news.entries.rbegin(); entry != news.entries.rend(); ++entry) {
        Content const& content = **entry;
        if (!isWanted(content, wish))
            continue;
        auto const kind = static_cast<std::size_t>(content.kind);
        if (!content.json.empty())
            append(there[kind], content.json);
        else if (!news.isAfresh)
            append(gone[kind], quoted(content.key));
    }
    std::string goneAll;
    for (std::size_t kind = 0; kind < kNames.size(); ++kind) {
        if (!there[kind].empty())
            appendMember(json, kNames[kind], "[" + there[kind] + "]");
        if (!gone[kind].empty())
            appendMember(goneAll, kNames[kind], "[" + gone[kind] + "]");
    }
    if (!goneAll.empty())
        appendMember(json, "gone", "{" + goneAll + "}");
}

void Board::tellEvents(News const& news, Wish const& wish, std::string& json) {
    if (!wish.calls)
        return;
    std::string calls;
    for (auto event = news.events.rbegin(); event != news.events.rend(); ++event) {
        if (wish.calls((*event)->object))
            append(calls, (*event)->json);
    }
    if (!calls.empty())
        appendMember(json, "calls", "[" + calls + "]");
    if (news.hasMissed)
        appendMember(json, "missed", "true");
}

std::string Board::take(Version& since, Wish const& wish) const {
    News news;
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        news = newsSince(since);
        since = version_;
    }
    std::string json;
    if (news.isAfresh)
        appendMember(json, "afresh", "true");
    tellEntries(news, wish, json);
    tellEvents(news, wish, json);
    return json.empty() ? json : "{" + json + "}";
}

std::string Board::find(Kind kind, std::string const& key) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    auto const found = places_.find({kind, key});
    return found == places_.end() ? "" : found->second->content->json;
}

std::string Board::all(Kind kind) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    std::string list;
    auto place = places_.lower_bound({kind, ""});
    for (; place != places_.end() && place->first.first == kind; ++place) {
        if (!place->second->isGone())
            append(list, place->second->content->json);
    }
    return list;
}

void Board::close() {
    std::lock_guard<std::mutex> const lock(mutex_);
    isClosed_ = true;
    changed_.notify_all();
}

bool Board::isClosed() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return isClosed_;
}
