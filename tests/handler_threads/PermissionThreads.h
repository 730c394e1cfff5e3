// Threads and questions that the tests of the run permission share, with the headers that all of
// them need.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "Threads.h"
#include "Waiting.h"
#include "handler_threads.h"
#include "oswrap.h"

namespace permissiontest {

using Run = TreflectRunPermission;

using testing::ElementsAre;
using testsupport::Gate;
using testsupport::LogCapture;
using testsupport::TestThread;
using testsupport::TestThreads;

/** Whether as many threads come to queue for the permission. */
inline bool queueGrowsTo(unsigned long threads) {
    return testsupport::eventually(
        [threads] { return Run::handlerThreads().getPermissionWaiters() == threads; });
}

/** What every test must leave behind. */
inline bool nothingLeft() {
    return Run::getRunPermissionOwner() == 0 && Run::getRunPermissionCount() == 0 &&
           Run::handlerThreads().size() == 0 && Run::handlerThreads().getPermissionWaiters() == 0;
}

class PermissionTest : public testing::Test {
protected:
    ~PermissionTest() override {
        joinAll();
        EXPECT_TRUE(nothingLeft());
    }
    /** A thread in handler state, once it has queued for the permission, which `body` asks for. */
    TestThread& queueUp(std::function<void()> const& body) {
        unsigned long const before = Run::handlerThreads().getPermissionWaiters();
        queued_.push_back(std::make_unique<TestThread>([body] {
            TreflectHandlerState const state(false);
            body();
        }));
        EXPECT_TRUE(queueGrowsTo(before + 1));
        return *queued_.back();
    }
    void joinAll() { queued_.clear(); }

    std::vector<std::unique_ptr<TestThread>> queued_;
};

}  // namespace permissiontest
