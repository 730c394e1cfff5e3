// Linked into a test program that makes brokers: they meet in a folder of the program's own, and
// are gone before the folder is.
#include <gtest/gtest.h>

#include "RendezvousFolder.h"
#include "reflect/TreflectORB.h"

namespace {

class BrokerFolder : public ::testing::Environment {
public:
    void SetUp() override { folder_.emplace(); }
    void TearDown() override {
        prepareOrbForDeletion();
        folder_.reset();
    }

private:
    std::optional<testsupport::RendezvousFolder> folder_;
};

::testing::Environment* const brokerFolder = ::testing::AddGlobalTestEnvironment(new BrokerFolder);

}  // namespace
