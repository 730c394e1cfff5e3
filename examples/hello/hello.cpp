// A server object and its call. `hello` serves until its input ends; `hello Ada`, in another
// process, finds the object by its identifier and calls it.
#include <handler_threads.h>
#include <ipprmi.h>
#include <reflect.h>

#include <cstdio>

TipprmiOID const greeterId("hello.greeter", NSID_UNIT);

// What both programs must agree on: the class with its id, its operation with its code.
class GreeterSkeleton : public TreflectInterface<GreeterSkeleton> {
public:
    using TreflectInterface::TreflectInterface;

    virtual std::string greet(std::string const& name) = 0;

    static constexpr auto interface() {
        return describe("Greeter", 0x48454C4F, op<&GreeterSkeleton::greet>("greet", 1));
    }
};
using Greeter = TreflectClient<GreeterSkeleton>;

class GreeterServer : public GreeterSkeleton {
public:
    using GreeterSkeleton::GreeterSkeleton;

    std::string greet(std::string const& name) override { return "Hello, " + name + "!"; }
};

int main(int argc, char** argv) {
    TreflectHandlerState const inside(true);  // objects are used under the run permission
    if (argc < 2) {
        GreeterServer const greeter(greeterId, nullptr, "greeter");
        TreflectReleaseHandlerState const outside;  // while we wait, callers may come in
        std::puts("serving, press Enter to end");
        std::fflush(stdout);
        std::getchar();
        return 0;
    }
    TipprmiResult<std::string> const text =
        Greeter(greeterId).call<&GreeterSkeleton::greet>(argv[1]);
    std::puts(text ? text.value().c_str() : "nobody greets");
    return text ? 0 : 1;
}
