#include "web/Api.h"

#include <algorithm>

#include "Descriptions.h"
#include "Facts.h"
#include "Showing.h"
#include "Waiting.h"
#include "Wildcard.h"
#include "web/Page.h"

namespace {

int statusOf(ExitCode outcome) {
    switch (outcome) {
        case ExitCode::kDone:
            return 200;
        case ExitCode::kRefused:
        case ExitCode::kVetoed:
            return 409;
        case ExitCode::kWrongUse:
            return 400;
        case ExitCode::kNotThere:
            return 404;
        case ExitCode::kTimedOut:
            return 504;
        case ExitCode::kNoAccess:
            return 403;
    }
    return 500;
}

HttpResponse document(Json const& json, int status = 200) {
    HttpResponse response;
    response.status = status;
    response.body = json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    return response;
}

HttpResponse refusal(Failure const& why) {
    return document({{"error", errorJson(why.outcome(), why.what())}}, statusOf(why.outcome()));
}

HttpResponse withHeaders(HttpResponse response) {
    response.headers.emplace("Cache-Control", "no-store");
    response.headers.emplace("X-Content-Type-Options", "nosniff");
    response.headers.emplace("Referrer-Policy", "no-referrer");
    return response;
}

HttpResponse page() {
    HttpResponse response;
    std::string const once = Gate::makeToken();
    response.type = "text/html; charset=utf-8";
    response.body = pageText(once);
    // Nothing but what is in the page runs in it, and it is shown in no other one.
    response.headers.emplace("Content-Security-Policy",
                             "default-src 'none'; script-src 'nonce-" + once +
                                 "'; style-src 'nonce-" + once +
                                 "'; img-src data:; connect-src 'self'; base-uri 'none'; "
                                 "form-action 'none'; frame-ancestors 'none'");
    return response;
}

/** What a request looks at. */
struct Look {
    explicit Look(Settings const& settings) : output(settings), tool(settings, output) {}

    Output output;  // which nobody reads
    Tool tool;
};

}  // namespace

std::optional<HttpResponse> Api::refuse(HttpRequest const& request) const {
    try {
        if (Wanted::isPage(request))
            gate_.checkWay(request);
        else
            gate_.check(request);
        if (Wanted::changes(Wanted::whatOf(request)))
            gate_.checkChange();
        return std::nullopt;
    } catch (Failure const& why) {
        return withHeaders(refusal(why));
    }
}

HttpResponse Api::answer(HttpRequest const& request) {
    try {
        return withHeaders(answer(Wanted(request)));
    } catch (Failure const& why) {
        return withHeaders(refusal(why));
    }
}

HttpResponse Api::answer(Wanted const& wanted) {
    using What = Wanted::What;
    switch (wanted.what) {
        case What::kPage:
            return page();
        case What::kMetrics: {
            HttpResponse response;
            response.type = "text/plain; version=0.0.4; charset=utf-8";
            response.body = metrics_.text(settings_);
            return response;
        }
        case What::kAbout:
            return document(about());
        case What::kList:
            return document(list(wanted));
        case What::kShow:
            return document(show(wanted));
        case What::kGet:
        case What::kSet:
        case What::kCall:
            return members(wanted);
        case What::kProcesses:
            return document(processes());
        case What::kWaits:
            return document(waits());
        case What::kClasses:
            return document(classes(wanted));
        case What::kEvents:
            return events(wanted);
    }
    throw Failure(ExitCode::kNotThere, "there is no such thing");
}

HttpResponse Api::members(Wanted const& wanted) const {
    using What = Wanted::What;
    bool const isCall = wanted.what == What::kCall;
    auto const encode = [wanted, isCall](Types const& types) {
        return parseJson(types, isCall ? wanted.arguments : Json::array({wanted.value}));
    };
    Use const use = [what = wanted.what, encode](TreflectObject const& object,
                                                 std::string const& name) -> std::optional<Shown> {
        if (what == What::kCall)
            return callForValue(operationOf(object, name), encode);
        TreflectAttribute& attribute = attributeOf(object, name);
        return what == What::kSet ? setAttribute(attribute, encode) : readAttribute(attribute);
    };
    Look look(settings_);
    Kind const kind = isCall ? Kind::kOperations : Kind::kAttributes;
    std::vector<Done> const done = wanted.ids.empty()
                                       ? useMembers(look.tool, wanted.names, kind, use)
                                       : membersById(wanted, use);
    Json all = Json::array();
    for (Done const& one : done)
        all.push_back(one.json());
    return document({{isCall ? "calls" : "values", all}},
                    done.size() == 1 ? statusOf(done.front().outcome) : 200);
}

/** Those that have gone come last. */
std::vector<Done> Api::membersById(Wanted const& wanted, Use const& use) const {
    std::vector<Found> present;
    std::vector<Done> gone;
    for (std::string const& id : wanted.ids) {
        try {
            present.push_back(hub_.find(id));
        } catch (Failure const& why) {
            gone.push_back({id, wanted.member, std::nullopt, why.outcome(), why.what()});
        }
    }
    Look look(settings_);
    std::vector<Done> done = useMember(look.tool.asking(), present, wanted.member, use);
    done.insert(done.end(), gone.begin(), gone.end());
    return done;
}

HttpResponse Api::events(Wanted const& wanted) const {
    constexpr int kUnavailable = 503;
    HttpResponse response;
    try {
        response.type = "text/event-stream";
        response.next = [listener = hub_.listen(wanted)] { return listener->next(); };
    } catch (Failure const& tooMany) {
        response = refusal(tooMany);
        response.status = kUnavailable;
    }
    return response;
}

Json Api::about() const {
    return {{"reflectorb", REFLECTORB_VERSION}, {"changes", gate_.mayChange()}};
}

Json Api::list(Wanted const& wanted) const {
    Json objects = Json::parse("[" + hub_.board().all(Board::Kind::kObject) + "]");
    auto const fits = [](std::string const& pattern, Json const& text) {
        return pattern.empty() || Wildcard(pattern).matches(text.get<std::string>());
    };
    Json all = Json::array();
    for (Json& object : objects) {
        bool const isNamed =
            wanted.names.empty() ||
            std::any_of(wanted.names.begin(), wanted.names.end(),
                        [&](std::string const& name) { return fits(name, object["name"]); });
        if (isNamed && fits(wanted.className, object["class"]) &&
            fits(wanted.process, object["process"]))
            all.push_back(std::move(object));
    }
    return {{"objects", all}};
}

Json Api::show(Wanted const& wanted) const {
    Look look(settings_);
    std::vector<Found> found;
    for (std::string const& name : wanted.names) {
        std::vector<Found> const like = look.tool.objects().find(name);
        found.insert(found.end(), like.begin(), like.end());
    }
    for (std::string const& id : wanted.ids)
        found.push_back(hub_.find(id));
    Json all = Json::array();
    for (Found const& one : found)
        all.push_back(jsonOf(one, nameOfOwner(look.tool.processes(), one.place.broker),
                             describe(look.tool.asking(), one)));
    return {{"objects", all}};
}

Json Api::processes() const {
    Look look(settings_);
    Processes const& processes = look.tool.processes();
    auto const facts = askProcessObjects<Facts>(look.tool.asking(), processes, factsOf);
    Json all = Json::array();
    for (std::size_t i = 0; i < processes.size(); ++i) {
        Json told = jsonOf(processes[i], facts[i]);
        Json traffic = Json::array();
        for (processobject::Traffic const& counted : facts[i].value.traffic)
            traffic.push_back({{"to", nameOfOwner(processes, counted.destination)},
                               {"sent", counted.sent},
                               {"failed", counted.failed}});
        if (facts[i])
            told["traffic"] = traffic;
        all.push_back(told);
    }
    return {{"processes", all}};
}

Json Api::waits() const {
    Look look(settings_);
    Missing missing;
    std::vector<WaitingCall> const calls = waitingCalls(look.tool, look.tool.processes(), missing);
    Json all = Json::array();
    for (WaitingCall const& call : calls)
        all.push_back(call.json());
    return {{"waits", all}, {"cycles", cyclesOf(calls)}, {"missing", missing.json()}};
}

Json Api::classes(Wanted const& wanted) const {
    Look look(settings_);
    return {{"classes", jsonOf(describedBy(look.tool, look.tool.processes(),
                                           wanted.className.empty() ? "*" : wanted.className))}};
}
