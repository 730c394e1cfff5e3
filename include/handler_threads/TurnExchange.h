#pragma once

#include "oswrap/Export.h"

/**
 * What a thread of a pool is going to do once it holds the run permission, in a form that another
 * thread of the same pool can do instead. A worker that has finished one piece of work while others
 * of its pool are queued for the permission need not wake the first of them: it takes over that
 * one's work and place, and leaves its own next work and its place at the end of the queue in
 * exchange. Everything is done in the same order as if the permission had been handed round,
 * without a change of threads.
 *
 * A thread that is cancelled while it is queued takes the work with it that it has then: disable
 * cancellation where no work may be lost.
 */
class REFLECTORB_API TurnExchange {
public:
    /** `pool` tells whose thread this is: any address that the threads of one pool have in
     * common and no others. It is only compared. */
    explicit TurnExchange(void const* pool) : pool_(pool) {}
    TurnExchange(TurnExchange const&) = delete;
    TurnExchange& operator=(TurnExchange const&) = delete;

    /** Whether the two may exchange their work. */
    bool samePool(TurnExchange const& other) const { return pool_ == other.pool_; }
    /** Exchanges the work with that of another thread of the pool. Called with the queue's mutex
     * held: short, and without locks or callbacks of its own. */
    virtual void swap(TurnExchange& other) = 0;

protected:
    ~TurnExchange() = default;

private:
    void const* const pool_;  // identity only
};
