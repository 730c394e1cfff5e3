#pragma once

namespace Transport {

/** How much of a termination others are to notice. */
enum class Visibility : unsigned char {
    Member,  // its arrival is told, and it is listed in its group
    Silent,  // neither; all else is the same: it exists, can be sent to, and its departure is told
};

}  // namespace Transport
