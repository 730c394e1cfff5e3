// What must not compile, each piece by itself, and what the compiler is to say of it (the text in
// the comment).
#include <memory>

#include "ipprmi.h"

struct Opaque {
    int number = 0;
};
struct Holder {
    std::vector<std::map<int, Opaque>> opaque;
    REFLECTORB_STRUCT(Holder, opaque)
};

void unsendable([[maybe_unused]] TipprmiStream& stream) {
#if PIECE == 1  // T has no operator<< for TipprmiStream
    stream << 1u << Opaque() << 2u;
#elif PIECE == 2  // T has no operator>> for TipprmiStream
    Opaque opaque;
    stream >> opaque;
#elif PIECE == 3  // T has no operator<< for TipprmiStream
    stream << Holder();
#elif PIECE == 4  // a pointer means nothing elsewhere
    int number = 0;
    stream << &number;
#elif PIECE == 5  // T has no operator<< for TipprmiStream
    stream << std::make_unique<int>(1);
#elif PIECE == 6  // this number has not the same size on every machine
    stream << 1.0L;
#elif PIECE == 7  // an enum travels as a number of 4 bytes
    enum class Wide : std::uint64_t { kOne };
    stream << Wide::kOne;
#elif PIECE == 8  // a pointer means nothing elsewhere
    stream << static_cast<void const*>(&stream);
#endif
}
