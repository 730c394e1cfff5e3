// What must not compile, each piece by itself, and what the compiler is to say of it (the text in
// the comment). Where the error speaks of "T", the compiler tells besides that it is Opaque.
#include <memory>

#include "ipprmi.h"
#include "reflect.h"

struct Opaque {
    int number = 0;
};
struct Holder {
    std::vector<std::map<int, Opaque>> opaque;
    REFLECTORB_STRUCT(Holder, opaque)
};

class LampSkeleton : public TreflectInterface<LampSkeleton> {
public:
    using TreflectInterface::TreflectInterface;
    virtual void setLevel(unsigned int level) = 0;
    static constexpr auto interface() {
        return describe("Lamp", 0x4C414D50, op<&LampSkeleton::setLevel>("setLevel", 1));
    }
};

void unsendable([[maybe_unused]] TipprmiStream& stream) {
#if PIECE == 1  // T has no operator<< for TipprmiStream
    stream << 1u << Opaque() << 2u;
#elif PIECE == 2   // T has no operator>> for TipprmiStream
    Opaque opaque;
    stream >> opaque;
#elif PIECE == 3   // T has no operator<< for TipprmiStream
    stream << Holder();
#elif PIECE == 4   // a pointer means nothing elsewhere
    int number = 0;
    stream << &number;
#elif PIECE == 5   // has no operator<< for TipprmiStream
    stream << std::make_unique<int>(1);
#elif PIECE == 6   // this number has not the same size on every machine
    stream << 1.0L;
#elif PIECE == 7   // an enum travels as a number of 4 bytes
    enum class Wide : std::uint64_t { kOne };
    stream << Wide::kOne;
#elif PIECE == 8   // a pointer means nothing elsewhere
    stream << static_cast<void const*>(&stream);
#elif PIECE == 9   // nothing would own the bytes that are read
    std::string_view text;
    stream >> text;
#elif PIECE == 10  // an exception has its failure code as a static constant kCode
    TipprmiOutcome<void, Holder> const outcome = TipprmiFailure(1);
#elif PIECE == 11  // these are not the arguments of this function
    TreflectClient<LampSkeleton>().call<&LampSkeleton::setLevel>("bright");
#endif
}
