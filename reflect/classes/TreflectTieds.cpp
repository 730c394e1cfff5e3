#include "reflect/TreflectTieds.h"

#include <cstdint>

#include "logging/Log.h"
#include "oswrap/Lock.h"

TreflectTieds::TiedBase::~TiedBase() = default;

TreflectTieds* TreflectTieds::instance() {
    static TreflectTieds* const tieds = new TreflectTieds;
    return tieds;
}

// The end of an attribute may be that of another handle, and so on: a path of names makes a chain
// of any length. It is ended link by link, on little stack.
void TreflectTieds::end(Tieds& ending) {
    static thread_local Tieds* outermost = nullptr;
    if (outermost) {
        outermost->merge(ending);
        return;
    }
    outermost = &ending;
    while (!ending.empty())
        ending.extract(ending.begin());
    outermost = nullptr;
}

TreflectTieds::~TreflectTieds() {
    Tieds ending;
    {
        OSWrap::Lock<> const lock(mutex_);
        ending.swap(tieds_);
    }
    end(ending);
}

// Handles lie at multiples of a word; the higher bits spread those that lie regularly.
std::atomic<unsigned int>& TreflectTieds::countOf(TreflectObject const* object) {
    auto const address = reinterpret_cast<std::uintptr_t>(object) / sizeof(void*);
    return counts_[(address ^ address / kGroups) % kGroups];
}

void TreflectTieds::adoptTied(TreflectObject const* object,
                              OSWrap::SmartPointer<TiedBase> const& tied) {
    OSWrap::Lock<> const lock(mutex_);
    tieds_.emplace(object, tied);
    countOf(object).fetch_add(1, std::memory_order_relaxed);
}

TreflectTieds::Tieds::iterator TreflectTieds::find(TreflectObject const* object,
                                                   OSWrap::SmartPointer<TiedBase> const& tied) {
    auto const range = tieds_.equal_range(object);
    for (auto at = range.first; at != range.second; ++at) {
        if (at->second == tied)
            return at;
    }
    return tieds_.end();
}

bool TreflectTieds::isTied(TreflectObject const* object,
                           OSWrap::SmartPointer<TiedBase> const& tied) {
    OSWrap::Lock<> const lock(mutex_);
    return find(object, tied) != tieds_.end();
}

void TreflectTieds::untie(TreflectObject const* object,
                          OSWrap::SmartPointer<TiedBase> const& tied) {
    Tieds::node_type ending;  // outlasts the lock
    OSWrap::Lock<> const lock(mutex_);
    auto const found = find(object, tied);
    if (found == tieds_.end())
        return;
    ending = tieds_.extract(found);
    countOf(object).fetch_sub(1, std::memory_order_relaxed);
}

// Ended after unlocking, since that can come back here.
void TreflectTieds::destroyTieds(TreflectObject const* object) {
    std::atomic<unsigned int>& count = countOf(object);
    if (count.load(std::memory_order_relaxed) == 0)
        return;
    Tieds ending;
    {
        OSWrap::Lock<> const lock(mutex_);
        auto const range = tieds_.equal_range(object);
        for (auto tied = range.first; tied != range.second;)
            ending.insert(ending.end(), tieds_.extract(tied++));
        count.fetch_sub(static_cast<unsigned int>(ending.size()), std::memory_order_relaxed);
    }
    end(ending);
}

void TreflectTieds::print() {
    std::size_t count = 0;
    {
        OSWrap::Lock<> const lock(mutex_);
        count = tieds_.size();
    }
    REFLECTORB_LOG(5, "REFLECT_memberFactory", "%lu tieds are registered",
                   static_cast<unsigned long>(count));
}
