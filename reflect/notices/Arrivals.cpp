#include "reflect/notices/Arrivals.h"

bool Arrivals::mayBegin(int process) const {
    auto const found = counts_.find(process);
    std::size_t const own = found == counts_.end() ? 0 : found->second;
    return own + 1 + underWay_.size() <= kMost;
}

// What may run out of memory comes first.
void Arrivals::enter(Id newcomer, int process) {
    std::size_t& count = counts_[process];
    if (underWay_.emplace(newcomer, process).second)
        ++count;
}

bool Arrivals::begin(Id newcomer, int process) {
    forget(newcomer);  // one of this id whose end has been told before
    if (mayBegin(process)) {
        enter(newcomer, process);
        return true;
    }
    // What may run out of memory comes first here, too.
    std::set<Id> inLine{newcomer};
    std::map<Id, int> waits{{newcomer, process}};
    lines_[process].merge(inLine);
    waiting_.merge(waits);
    return false;
}

void Arrivals::end(Id newcomer) {
    auto const found = underWay_.find(newcomer);
    if (found == underWay_.end())
        return;
    if (auto const count = counts_.find(found->second); --count->second == 0)
        counts_.erase(count);
    underWay_.erase(found);
}

/** Of the first process of which one may begin. */
Arrivals::Id Arrivals::next() {
    for (auto const& [process, line] : lines_) {
        if (!mayBegin(process))
            continue;
        Id const first = *line.begin();
        enter(first, process);
        forget(first);
        return first;
    }
    return {};
}

bool Arrivals::forget(Id gone) {
    auto const found = waiting_.find(gone);
    if (found == waiting_.end())
        return false;
    auto const line = lines_.find(found->second);
    line->second.erase(gone);
    if (line->second.empty())
        lines_.erase(line);
    waiting_.erase(found);
    return true;
}
