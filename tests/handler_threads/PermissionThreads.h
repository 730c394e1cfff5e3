// Threads and questions that the tests of the run permission share.
#pragma once

#include <gtest/gtest.h>

#include "Threads.h"
#include "Waiting.h"
#include "handler_threads.h"

namespace permissiontest {

using Run = TreflectRunPermission;

using testsupport::TestThread;

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
    ~PermissionTest() override { EXPECT_TRUE(nothingLeft()); }
};

}  // namespace permissiontest
