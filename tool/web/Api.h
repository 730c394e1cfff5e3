// What the gateway answers.
#pragma once

#include "Members.h"
#include "Settings.h"
#include "web/Gate.h"
#include "web/Http.h"
#include "web/Hub.h"
#include "web/Metrics.h"
#include "web/Wanted.h"

/** Answers requests, each on the thread of its connection, which waits for the objects that it
 * asks, up to the timeout of the program. Any thread, without the run permission. */
class Api {
public:
    Api(Settings const& settings, Gate const& gate, Hub& hub)
        : settings_(settings), gate_(gate), hub_(hub) {}

    /** The answer to a request that is refused, whatever its body, which is not there yet. */
    std::optional<HttpResponse> refuse(HttpRequest const& request) const;
    HttpResponse answer(HttpRequest const& request);

private:
    HttpResponse answer(Wanted const& wanted);
    HttpResponse members(Wanted const& wanted) const;
    std::vector<Done> membersById(Wanted const& wanted, Use const& use) const;
    HttpResponse events(Wanted const& wanted) const;
    Json about() const;
    Json list(Wanted const& wanted) const;
    Json show(Wanted const& wanted) const;
    Json processes() const;
    Json waits() const;
    Json classes(Wanted const& wanted) const;

    Settings const settings_;
    Gate const gate_;
    Hub& hub_;
    Metrics metrics_;
};
