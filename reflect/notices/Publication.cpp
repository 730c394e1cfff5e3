#include "reflect/notices/Publication.h"

#include <algorithm>
#include <iterator>
#include <utility>

bool Publication::addDue(Subscribers const& subscribers) {
    std::set_difference(subscribers.begin(), subscribers.end(), told_.begin(), told_.end(),
                        std::inserter(due_, due_.end()));
    return !due_.empty();
}

bool Publication::next(TreflectOrbId& subscriber) {
    sending_ = true;
    if (std::exchange(waiting_, false))
        told_.insert(current_);
    if (due_.empty())
        return false;
    subscriber = current_ = *due_.begin();
    due_.erase(due_.begin());
    deliveriesBefore_ = thread_.deliveries();
    waiting_ = true;
    return true;
}
