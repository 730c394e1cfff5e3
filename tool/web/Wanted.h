// What a request of the interface for programs wants: its path, its query and its body as values.
#pragma once

#include <string>
#include <vector>

#include "Json.h"
#include "web/Http.h"

/** A value. */
struct Wanted {
    enum class What {
        kPage,
        kMetrics,
        kAbout,
        kList,
        kShow,
        kGet,
        kSet,
        kCall,
        kProcesses,
        kWaits,
        kClasses,
        kEvents
    };

    What what = What::kPage;
    std::vector<std::string> names;  // of objects or members, or patterns of them; of kEvents: of
                                     // the objects whose values are wanted
    std::vector<std::string> ids;    // of objects, in place of names: as kList tells them
    std::string member;              // of kGet, kSet and kCall, of the objects with these ids
    std::vector<std::string> calls;  // of kEvents: the objects whose calls are
    std::string className;           // of kList and kClasses: a pattern; empty for all
    std::string process;             // of kList: likewise
    Json value;                      // of kSet
    Json arguments;                  // of kCall: a list
    bool processes = false;          // of kEvents: what processes do is wanted, too
    std::uint64_t since = 0;         // of kEvents: what is known already; 0 for nothing

    /** What a request is about, by its path and method alone. Throws a Failure as below. */
    static bool isPage(HttpRequest const& request) {
        return request.method == "GET" && request.path == "/";
    }
    static What whatOf(HttpRequest const& request);
    static bool changes(What what) { return what == What::kSet || what == What::kCall; }
    bool changes() const { return changes(what); }

    /** Throws a Failure: with kNotThere when there is nothing of this path, with kWrongUse when the
     * rest makes no sense. */
    explicit Wanted(HttpRequest const& request);
};
