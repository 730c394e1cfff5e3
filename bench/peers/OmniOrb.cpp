// omniORB, as its users would have it: what omniidl generates, Unix sockets, and a connection for
// each calling thread.
#include <atomic>
#include <fstream>
#include <string>

#include "Child.h"
#include "Subject.h"
#include "target.hh"

namespace bench {

namespace {

class Servant final : public POA_BenchTarget {
public:
    CORBA::ULong exchange(CORBA::ULong number, char const* text,
                          CORBA::String_out answer) override {
        answer = CORBA::string_dup(text);
        return number + 1;
    }
    char* echo(char const* body) override { return CORBA::string_dup(body); }
    void notice() override { ++notices_; }
    CORBA::ULong count() override { return notices_; }

private:
    std::atomic<CORBA::ULong> notices_{0};
};

/** Many who connect at once find the server's backlog full: they try again. */
CORBA::Boolean tryAgain(void*, CORBA::ULong attempts, CORBA::TRANSIENT const&) {
    return attempts < 1000;
}

class OmniClient final : public Client {
public:
    explicit OmniClient(BenchTarget_ptr target) : target_(BenchTarget::_duplicate(target)) {}

    bool call() override {
        static std::string const text(32, 'x');
        CORBA::String_var answer;
        return target_->exchange(7, text.c_str(), answer.out()) == 8 && text == answer.in();
    }
    bool callBody(std::size_t bytes) override {
        if (body_.size() != bytes)
            body_.assign(bytes, 'b');
        CORBA::String_var const answer = target_->echo(body_.c_str());
        return std::char_traits<char>::length(answer) == bytes;
    }
    bool sendOneWay() override {
        target_->notice();
        return true;
    }
    std::uint32_t servedOneWays() override { return target_->count(); }

private:
    BenchTarget_var const target_;
    std::string body_;
};

class OmniOrb final : public Subject {
public:
    void serve(std::string const& folder) override {
        std::string const place = "giop:unix:" + folder + "/peer";
        char const* options[][2] = {{"endPoint", place.c_str()}, {nullptr, nullptr}};
        CORBA::ORB_var const orb = init(options);
        CORBA::Object_var const root = orb->resolve_initial_references("RootPOA");
        PortableServer::POA_var const poa = PortableServer::POA::_narrow(root);
        PortableServer::Servant_var<Servant> const servant = new Servant;
        PortableServer::ObjectId_var const id = poa->activate_object(servant);
        CORBA::Object_var const object = poa->id_to_reference(id);
        CORBA::String_var const name = orb->object_to_string(object);
        std::ofstream(folder + "/name") << name.in();
        PortableServer::POAManager_var(poa->the_POAManager())->activate();
        announceAndWait();
        orb->destroy();
    }
    std::unique_ptr<Client> connect(std::string const& folder) override {
        char const* options[][2] = {{"maxGIOPConnectionPerServer", "100"}, {nullptr, nullptr}};
        orb_ = init(options);
        omniORB::installTransientExceptionHandler(nullptr, tryAgain);
        std::string name;
        std::ifstream(folder + "/name") >> name;
        CORBA::Object_var const object = orb_->string_to_object(name.c_str());
        return std::make_unique<OmniClient>(BenchTarget_var(BenchTarget::_narrow(object)));
    }

private:
    static CORBA::ORB_ptr init(char const* options[][2]) {
        int none = 0;
        return CORBA::ORB_init(none, nullptr, "omniORB4", options);
    }

    CORBA::ORB_var orb_;
};

}  // namespace

std::unique_ptr<Subject> makeOmniOrb() {
    return std::make_unique<OmniOrb>();
}

}  // namespace bench
