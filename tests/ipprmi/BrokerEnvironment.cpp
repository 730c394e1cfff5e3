// Streams take their buffers from the unit's broker: it gets a rendezvous folder of its own, and is
// deleted before that goes.
#include <gtest/gtest.h>

#include <memory>

#include "RendezvousFolder.h"
#include "reflect/TreflectORB.h"

namespace {

class BrokerEnvironment : public testing::Environment {
public:
    void SetUp() override { folder_ = std::make_unique<testsupport::RendezvousFolder>(); }
    void TearDown() override {
        prepareOrbForDeletion();
        folder_.reset();
    }

private:
    std::unique_ptr<testsupport::RendezvousFolder> folder_;
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new BrokerEnvironment);

}  // namespace
