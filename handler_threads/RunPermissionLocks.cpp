// The locks that give the run permission back while they block.
//
// They hand the wrapped primitive's state out as their own, which the lock analysis cannot follow.
#include "handler_threads/RunPermConditionVar.h"
#include "handler_threads/RunPermMutex.h"
#include "handler_threads/TreflectConditionVar.h"
#include "handler_threads/TreflectCountedMutex.h"
#include "handler_threads/TreflectMutex.h"
#include "handler_threads/TreflectReleaseHandlerState.h"

namespace {

/** The permission is taken back after the primitive, when the guard ends. */
template <class Primitive>
void lockWithoutPermission(Primitive& primitive) OSW_NO_ANALYSIS
{
    TreflectReleaseHandlerState const released;
    primitive.lock();
}

template <class Condition>
bool waitWithoutPermission(Condition& condition, OSWrap::TimeSpec const& limit) OSW_NO_ANALYSIS
{
    TreflectReleaseHandlerState const released;
    return condition.wait(limit);
}

}  // namespace

TreflectMutex::TreflectMutex() = default;
TreflectMutex::~TreflectMutex() = default;

void TreflectMutex::lock() OSW_NO_ANALYSIS
{
    if (!mutex_.trylock())
        lockWithoutPermission(mutex_);
}

bool TreflectMutex::trylock() OSW_NO_ANALYSIS
{ return mutex_.trylock(); }

void TreflectMutex::unlock() OSW_NO_ANALYSIS
{ mutex_.unlock(); }

TreflectCountedMutex::TreflectCountedMutex() = default;
TreflectCountedMutex::~TreflectCountedMutex() = default;

void TreflectCountedMutex::lock() OSW_NO_ANALYSIS
{
    if (!mutex_.trylock())
        lockWithoutPermission(mutex_);
}

bool TreflectCountedMutex::trylock() OSW_NO_ANALYSIS
{ return mutex_.trylock(); }

void TreflectCountedMutex::unlock() OSW_NO_ANALYSIS
{ mutex_.unlock(); }

TreflectConditionVar::TreflectConditionVar(bool monotonic) : condition_(monotonic) {}
TreflectConditionVar::~TreflectConditionVar() = default;

void TreflectConditionVar::lock() OSW_NO_ANALYSIS
{
    if (!trylock())
        lockWithoutPermission(condition_);
}

bool TreflectConditionVar::trylock() OSW_NO_ANALYSIS
{ return condition_.trylock(); }

void TreflectConditionVar::unlock() OSW_NO_ANALYSIS
{ condition_.unlock(); }

bool TreflectConditionVar::wait(OSWrap::TimeSpec const& limit) OSW_NO_ANALYSIS
{ return waitWithoutPermission(condition_, limit); }

namespace OSWrap {

RunPermMutex::RunPermMutex() = default;
RunPermMutex::~RunPermMutex() = default;

void RunPermMutex::lock() OSW_NO_ANALYSIS
{ lockWithoutPermission(mutex_); }

bool RunPermMutex::trylock() OSW_NO_ANALYSIS
{ return mutex_.trylock(); }

void RunPermMutex::unlock() OSW_NO_ANALYSIS
{ mutex_.unlock(); }

RunPermConditionVar::RunPermConditionVar(bool monotonic) : condition_(monotonic) {}
RunPermConditionVar::~RunPermConditionVar() = default;

void RunPermConditionVar::lock() OSW_NO_ANALYSIS
{ lockWithoutPermission(condition_); }

bool RunPermConditionVar::trylock() OSW_NO_ANALYSIS
{ return condition_.trylock(); }

void RunPermConditionVar::unlock() OSW_NO_ANALYSIS
{ condition_.unlock(); }

bool RunPermConditionVar::wait(TimeSpec const& limit) OSW_NO_ANALYSIS
{ return waitWithoutPermission(condition_, limit); }

}  // namespace OSWrap
