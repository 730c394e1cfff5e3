#pragma once

#include <cstdint>
#include <cstring>

namespace OSWrap {

/** An unsigned number that lies in memory in network byte order (most significant byte first) and
 * is converted when it is set or read. Has the size and the alignment of bytes, so it may overlay
 * any buffer. */
template <class T>
class NetNumVar {
public:
    NetNumVar() = default;
    /** Converts to network byte order. */
    NetNumVar(T value) { set(value); }
    NetNumVar& operator=(T value) {
        set(value);
        return *this;
    }
    /** The number in the machine's own byte order. */
    operator T() const {
        T value = 0;
        for (unsigned char byte : bytes_)
            value = static_cast<T>((value << 8) | byte);
        return value;
    }

private:
    void set(T value) {
        for (std::size_t i = sizeof(T); i-- > 0; value = static_cast<T>(value >> 8))
            bytes_[i] = static_cast<unsigned char>(value & 0xFF);
    }

    unsigned char bytes_[sizeof(T)] = {};
};

static_assert(sizeof(NetNumVar<unsigned int>) == 4 && alignof(NetNumVar<unsigned int>) == 1,
              "overlays message buffers");

}  // namespace OSWrap
