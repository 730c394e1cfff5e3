// A process that serves ends and comes back, while others hold handles on its objects.
#include "StationActor.h"

namespace {

class RestartTest : public StationTest {
protected:
    RestartTest() {
        for (int i = 0; i < 3; ++i)
            clients_.push_back(std::make_unique<StationActor>());
    }
    void expectOfAll(std::string const& command, std::string const& answer,
                     std::string const& expected) {
        for (auto& client : clients_)
            EXPECT_EQ(client->ask(command, answer), expected) << command;
    }

    std::vector<std::unique_ptr<StationActor>> clients_;
};

TEST_F(RestartTest, oldHandlesFailAtOnceAndNewOnesReachTheNewObject) {
    auto server = std::make_unique<StationActor>();
    auto former = server->publishStation("lamp");
    for (int life = 0; life < 4; ++life) {
        expectOfAll("keep lamp", "done", "1");
        expectOfAll("use lamp", "used", "1");
        auto const start = std::chrono::steady_clock::now();
        if (life % 2 == 0)
            server->finish();
        else
            server.reset();  // killed
        expectOfAll("use lamp", "used", "0 0");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20))
            << "less than one period of waiting";
        expectOfAll("find lamp", "found", "0 0");
        server = std::make_unique<StationActor>();
        // The same program makes the same objects in the same order; only the broker differs.
        auto const now = server->publishStation("lamp");
        EXPECT_NE(now.termination, former.termination);
        EXPECT_NE(now.broker, former.broker);
        former = now;
        expectOfAll("use lamp", "used", "0 0");
    }
    server->finish();
    for (auto& client : clients_)
        client->finish();
}

}  // namespace
