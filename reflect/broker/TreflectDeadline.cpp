#include "reflect/TreflectDeadline.h"

#include <algorithm>
#include <utility>

#include "oswrap/Clock.h"

namespace {

// Of the calling thread.
thread_local TreflectDeadline const* innermost = nullptr;

long long endAfter(std::chrono::nanoseconds left) {
    long long const now = OSWrap::Clock::nowNanoseconds();
    long long const most = TreflectDeadline::kNever - now - 1;
    return now + std::clamp(static_cast<long long>(left.count()), 0LL, most);
}

}  // namespace

TreflectDeadline::TreflectDeadline(std::chrono::nanoseconds left)
    : outer_(innermost), end_(std::min(endAfter(left), endOfThread())) {
    innermost = this;
}

TreflectDeadline::~TreflectDeadline() {
    innermost = outer_;
}

std::chrono::nanoseconds TreflectDeadline::left() const {
    return std::chrono::nanoseconds(std::max(0LL, end_ - OSWrap::Clock::nowNanoseconds()));
}

long long TreflectDeadline::endOfThread() {
    TreflectDeadline const* const deadline = innermost;
    return deadline ? deadline->end_ : kNever;
}

TreflectDeadline::Suspension::Suspension() : suspended_(std::exchange(innermost, nullptr)) {}

TreflectDeadline::Suspension::~Suspension() {
    innermost = suspended_;
}
