#pragma once

#include <boost/shared_ptr.hpp>

namespace OSWrap {

/** The platform's reference-counted pointer (Boost's, https://www.boost.org/libs/smart_ptr). */
template <class T>
using SmartPointer = boost::shared_ptr<T>;

}  // namespace OSWrap
