// A server object and its call. `hello` serves until its input ends; `hello Ada`, in another
// process, finds the object by its identifier and calls it.
#include <handler_threads.h>
#include <ipprmi.h>
#include <reflect.h>

#include <cstdio>

TipprmiOID const greeterId("hello.greeter", NSID_UNIT);
constexpr unsigned int kGreeterClass = 0x48454C4F;
constexpr unsigned int kGreet = 1;

class GreeterServer : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    std::string greet(std::string const& name) { return "Hello, " + name + "!"; }

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc == kGreeterClass && mc == kGreet)
            return serve(cc, mc, in, out, &GreeterServer::greet);
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
};

class Greeter : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    TipprmiResult<std::string> greet(std::string const& name) const {
        return tipprmiCall<std::string>(*this, kGreeterClass, kGreet, name);
    }
};

int main(int argc, char** argv) {
    TreflectHandlerState const inside(true);  // objects are used under the run permission
    if (argc < 2) {
        GreeterServer const greeter(greeterId);
        TreflectReleaseHandlerState const outside;  // while we wait, callers may come in
        std::puts("serving, press Enter to end");
        std::fflush(stdout);
        std::getchar();
        return 0;
    }
    TipprmiResult<std::string> const text = Greeter(greeterId).greet(argv[1]);
    std::puts(text ? text.value().c_str() : "nobody greets");
    return text ? 0 : 1;
}
