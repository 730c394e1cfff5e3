#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <map>

#include "oswrap/Mutex.h"
#include "oswrap/SmartPointer.h"

class TreflectObject;

/**
 * The process's owner of bound members: what a handle hands out by name lives here until the handle
 * is destroyed. Made on first use and never destroyed. Any thread.
 */
class REFLECTORB_API TreflectTieds {
public:
    /** What is tied to a handle. */
    class REFLECTORB_API TiedBase {
    public:
        virtual ~TiedBase() = 0;
    };

    /** The one of this process, made on first use; never null. */
    static TreflectTieds* instance();

    TreflectTieds() = default;
    ~TreflectTieds();
    TreflectTieds(TreflectTieds const&) = delete;
    TreflectTieds& operator=(TreflectTieds const&) = delete;

    /** Ties one more thing to a handle, of which only the address counts. */
    void adoptTied(TreflectObject const* object, OSWrap::SmartPointer<TiedBase> const& tied);
    /** Lets go of one thing; no effect if it is not tied to the handle. */
    void untie(TreflectObject const* object, OSWrap::SmartPointer<TiedBase> const& tied);
    /** Whether it is still tied: the handle has not been destroyed since. */
    bool isTied(TreflectObject const* object, OSWrap::SmartPointer<TiedBase> const& tied);
    /** Lets go of all that is tied to a handle. When the end of something tied destroys a handle in
     * its turn, what is tied to that one ends next. */
    void destroyTieds(TreflectObject const* object);
    /** Logs at level 5 how many things are tied to handles. */
    void print();

private:
    using Tieds = std::multimap<TreflectObject const*, OSWrap::SmartPointer<TiedBase>>;

    /** Lets go of all that was taken out. */
    static void end(Tieds& ending);

    static constexpr std::size_t kGroups = 1024;

    /** The count of the group of handles that this one belongs to. */
    std::atomic<unsigned int>& countOf(TreflectObject const* object);
    /** The end when it is not tied. */
    Tieds::iterator find(TreflectObject const* object, OSWrap::SmartPointer<TiedBase> const& tied)
        OSW_REQUIRES(mutex_);

    OSWrap::Mutex mutex_;  // a leaf: what is tied ends outside it
    Tieds tieds_ OSW_GUARDED_BY(mutex_);
    /** How many things are tied to the handles of each group, changed under mutex_. Read without:
     * a handle that nothing is tied to is, as a rule, destroyed without the lock, and only the
     * thread that uses a handle ties things to it. */
    std::array<std::atomic<unsigned int>, kGroups> counts_{};
};
