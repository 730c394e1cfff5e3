#pragma once

#include <boost/intrusive/list.hpp>

/** Base of what a record has in a list while it lives: it leaves the list with its destruction.
 * (Boost's, https://www.boost.org/libs/intrusive.) */
using ListedWhileItLives =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

/** What is under way, the longest first. Not owned. Needs no memory. */
template <class T>
using UnderWay = boost::intrusive::list<T, boost::intrusive::constant_time_size<false>>;
