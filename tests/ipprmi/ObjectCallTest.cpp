#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "ChildProgram.h"
#include "LogCapture.h"
#include "PeerObjects.h"
#include "Waiting.h"
#include "handler_threads.h"
#include "reflect.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED 1
#endif
#endif

#ifndef SANITIZED
namespace {
std::atomic<unsigned long> allocations{0};
}

void* operator new(std::size_t size) {
    ++allocations;
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
#endif

namespace {

using testsupport::ChildProgram;
using testsupport::eventually;
using testsupport::LogCapture;

class ObjectCallTest : public ::testing::Test {
protected:
    ObjectCallTest() { startPeer(); }
    void startPeer() {
        child = std::make_unique<ChildProgram>("objects_peer");
        ASSERT_TRUE(child->waitForLine("serving"));
    }
    /** Waits with the run permission given up, so that others come to their turn. */
    template <class Condition>
    static bool comesTrue(Condition const& condition) {
        return eventually([&] {
            if (condition())
                return true;
            TreflectReleaseHandlerState const outside;
            return false;
        });
    }
    static TipprmiResult<std::string> join(TipprmiObjectClient const& object) {
        return tipprmiCall<std::string>(object, peer::kClass, peer::kJoin, "number ", 17u);
    }

    std::unique_ptr<ChildProgram> child;
    TreflectHandlerState const inside{true};
};

TEST_F(ObjectCallTest, AnObjectIsFoundByIdentifierAndCalled) {
    TipprmiObjectClient const object(peer::id());
    ASSERT_TRUE(object.isConnected());
    EXPECT_EQ(object.getServer(), nullptr);
    EXPECT_EQ(join(object).value(), "number 17");
    EXPECT_TRUE(TreflectORB::hasRunPermission()) << "taken back after the wait";
    EXPECT_EQ(tipprmiCall<void>(object, peer::kClass, peer::kRefuse, 42u).code(), 42u);
    EXPECT_EQ(tipprmiCall<void>(object, peer::kClass, 99).code(), TipprmiFailure::kNotServed);
    EXPECT_EQ(child->exitCode(std::chrono::milliseconds(0)), -1000) << "and lives on";
}

TEST_F(ObjectCallTest, AOneWayCallArrives) {
    TipprmiObjectClient const object(peer::id());
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(tipprmiSend(object, peer::kClass, peer::kCount));
    EXPECT_TRUE(comesTrue([&] {
        return tipprmiCall<unsigned int>(object, peer::kClass, peer::kCounted).value() == 10;
    }));
}

TEST_F(ObjectCallTest, AHandleThatIsPassedLeadsBackToItsObject) {
    peer::Server mine(TipprmiOID("", NSID_UNIT));
    TipprmiObjectClient const object(peer::id());
    auto const text =
        tipprmiCall<std::string>(object, peer::kClass, peer::kCallBack, *mine.getClient());
    EXPECT_TRUE(text);
    EXPECT_EQ(text.value(), "back1");
}

/** Lets go of a handle when it is called. */
class LettingGo : public peer::Server {
public:
    explicit LettingGo(TipprmiObjectClient& handle)
        : Server(TipprmiOID("", NSID_UNIT)), handle_(handle) {}
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        handle_ = TipprmiObjectClient();
        return Server::dispatch(withResponse, cc, mc, in, out);
    }

private:
    TipprmiObjectClient& handle_;
};

TEST_F(ObjectCallTest, AHandleMayBeLetGoWhileACallThroughItWaits) {
    TipprmiObjectClient object(peer::id());
    LettingGo lettingGo(object);
    auto const text =
        tipprmiCall<std::string>(object, peer::kClass, peer::kCallBack, *lettingGo.getClient());
    EXPECT_EQ(text.value(), "back1");
    EXPECT_FALSE(object.isConnected());
}

TEST_F(ObjectCallTest, AKilledPeerMakesItsStubInvalidAndItsSuccessorIsFound) {
    TipprmiObjectClient const object(peer::id());
    ASSERT_TRUE(join(object));
    child->kill();
    ASSERT_TRUE(comesTrue([&] { return !object.isConnected(); }));
    EXPECT_FALSE(object.getStub_()->isValid());
    EXPECT_EQ(join(object).code(), TipprmiFailure::kNotServed);
    EXPECT_FALSE(TipprmiObjectClient(peer::id()).isConnected());

    {
        TreflectReleaseHandlerState const outside;
        startPeer();
    }
    EXPECT_FALSE(join(object)) << "an invalid stub stays so";
    EXPECT_EQ(join(TipprmiObjectClient(peer::id())).value(), "number 17");
}

TEST_F(ObjectCallTest, AHandleOnAnAbsentNameConnectsWhenItIsUsed) {
    child->closeInput();
    ASSERT_EQ(child->exitCode(), 0);
    TipprmiObjectClient const object(peer::id());
    EXPECT_FALSE(object.isConnected());
    EXPECT_FALSE(join(object));
    {
        TreflectReleaseHandlerState const outside;
        startPeer();
    }
    EXPECT_EQ(join(object).value(), "number 17");
    EXPECT_EQ(TipprmiObjectClient(peer::id()).getStub_(), object.getStub_());
}

TEST_F(ObjectCallTest, TheExceptionContainerPairWorksRemotely) {
    TipprmiObjectClient const object(peer::id());
    TreflectObjectStub const& stub = *object.getStub_();
    EXPECT_EQ(stub.getExceptionContainer().getExceptionType(), 0u);
    TipprmiExceptionContainer container;
    container.setExceptionType(7);
    stub.setExceptionContainer(container);
    EXPECT_EQ(stub.getExceptionContainer().getExceptionType(), 7u);
    EXPECT_FALSE(join(object)) << "it stands at the head of every response from now on";
}

TEST_F(ObjectCallTest, ABrokenAnswerToTheExceptionContainerPairIsReported) {
    TipprmiObjectClient const object(peer::truncatingId());
    LogCapture const log;
    object.getStub_()->setExceptionContainer(TipprmiExceptionContainer());
    EXPECT_EQ(log.count(4, "Unmarshall error on cc=0x0, mc=2101"), 1u)
        << "with the code of the other method of the pair";
    object.getStub_()->getExceptionContainer();
    EXPECT_EQ(log.count(4, "Unmarshall error on cc=0x0, mc=2101"), 2u);
}

#ifndef SANITIZED
TEST_F(ObjectCallTest, ACallAllocatesNothingOnceItIsWarm) {
    TipprmiObjectClient const object(peer::id());
    auto const counted = [&] {
        return tipprmiCall<unsigned int>(object, peer::kClass, peer::kCounted);
    };
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(counted());
    unsigned long const before = allocations;
    for (int i = 0; i < 1000; ++i)
        counted();
    // Threads of the library run beside the calls and may allocate for reasons of their own.
    EXPECT_LT(allocations - before, 10u);
}
#endif

}  // namespace
