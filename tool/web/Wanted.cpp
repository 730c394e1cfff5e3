#include "web/Wanted.h"

#include <algorithm>
#include <map>

#include "Failure.h"

namespace {

using What = Wanted::What;

struct Route {
    char const* method;
    What what;
};

std::map<std::string, Route> const& routes() {
    static std::map<std::string, Route> const all = {
        {"/", {"GET", What::kPage}},
        {"/metrics", {"GET", What::kMetrics}},
        {"/api/", {"GET", What::kAbout}},
        {"/api/list", {"GET", What::kList}},
        {"/api/show", {"GET", What::kShow}},
        {"/api/get", {"GET", What::kGet}},
        {"/api/set", {"POST", What::kSet}},
        {"/api/call", {"POST", What::kCall}},
        {"/api/processes", {"GET", What::kProcesses}},
        {"/api/waits", {"GET", What::kWaits}},
        {"/api/classes", {"GET", What::kClasses}},
        {"/api/events", {"GET", What::kEvents}},
    };
    return all;
}

std::vector<std::string> all(HttpRequest const& request, std::string const& parameter,
                             std::size_t most = 1000) {
    std::vector<std::string> values;
    auto const range = request.query.equal_range(parameter);
    for (auto one = range.first; one != range.second; ++one)
        values.push_back(one->second);
    if (values.size() > most)
        throw Failure(ExitCode::kWrongUse, "too many of \"" + parameter + "\"");
    return values;
}

/** Patterns that all objects are compared with, again and again. */
std::vector<std::string> patterns(HttpRequest const& request, std::string const& parameter) {
    constexpr std::size_t kMost = 32;
    constexpr std::size_t kLongest = 256;
    std::vector<std::string> patterns = all(request, parameter, kMost);
    for (std::string const& pattern : patterns) {
        if (pattern.size() > kLongest)
            throw Failure(ExitCode::kWrongUse, "\"" + parameter + "\" is too long");
    }
    return patterns;
}

/** JSON; nothing of it when it has too much within each other, since that is read later by
 * functions that call themselves. */
Json shallowJson(std::string const& text) {
    constexpr int kDeepest = 200;
    bool isShallow = true;
    Json json = Json::parse(
        text,
        [&isShallow](int depth, Json::parse_event_t, Json const&) {
            isShallow = isShallow && depth <= kDeepest;
            return isShallow;
        },
        false);
    if (!isShallow)
        throw Failure(ExitCode::kWrongUse, "the body has too much within each other");
    return json;
}

Json bodyOf(HttpRequest const& request) {
    // A form of another page can be sent without being asked; this type of body cannot.
    if (request.header("content-type").rfind("application/json", 0) != 0)
        throw Failure(ExitCode::kWrongUse, "the body must be of the type application/json");
    Json body = shallowJson(request.body);
    if (!body.is_object())
        throw Failure(ExitCode::kWrongUse, "the body must be a JSON object");
    return body;
}

/** One text, or a list of them; none when there is no such member. */
std::vector<std::string> textsIn(Json const& body, std::string const& member,
                                 std::string const& what) {
    auto const found = body.find(member);
    if (found == body.end())
        return {};
    Json const texts = found->is_array() ? *found : Json::array({*found});
    bool const isWhole =
        !texts.empty() &&
        std::all_of(texts.begin(), texts.end(), [](auto const& one) { return one.is_string(); });
    if (!isWhole)
        throw Failure(ExitCode::kWrongUse, "\"" + member + "\" must be " + what);
    return texts.get<std::vector<std::string>>();
}

/** Objects are told by their names or by their ids; a name has that of the member in it. */
void checkNames(Wanted const& wanted) {
    bool const wantsMember = wanted.what != What::kShow && !wanted.ids.empty();
    if (wanted.names.empty() == wanted.ids.empty())
        throw Failure(ExitCode::kWrongUse, "\"name\" or \"id\" is wanted, one of them");
    if (wantsMember && wanted.member.empty())
        throw Failure(ExitCode::kWrongUse, "\"member\" is missing, which goes with \"id\"");
}

void takeBody(Wanted& wanted, Json const& body) {
    wanted.names = textsIn(body, "name", "OBJECT/MEMBER, or a list of such");
    wanted.ids = textsIn(body, "id", "the id of an object, or a list of such");
    auto const member = body.find("member");
    if (member != body.end() && member->is_string())
        wanted.member = member->get<std::string>();
    checkNames(wanted);
    if (wanted.what == What::kSet) {
        if (body.count("value") == 0)
            throw Failure(ExitCode::kWrongUse, "\"value\" is missing");
        wanted.value = body["value"];
        return;
    }
    wanted.arguments = body.value("arguments", Json::array());
    if (!wanted.arguments.is_array())
        throw Failure(ExitCode::kWrongUse, "\"arguments\" must be a list");
}

/** What is not said, or no number, is nothing: a listener is told too much rather than too little.
 */
std::uint64_t numberIn(std::string const& text) {
    constexpr std::size_t kLongest = 18;
    bool const isNumber = !text.empty() && text.size() <= kLongest &&
                          text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? std::stoull(text) : 0;
}

}  // namespace

What Wanted::whatOf(HttpRequest const& request) {
    auto const found = routes().find(request.path);
    if (found == routes().end())
        throw Failure(ExitCode::kNotThere, "there is no " + request.path.substr(0, 100));
    if (request.method != found->second.method)
        throw Failure(ExitCode::kWrongUse,
                      request.path + " takes " + found->second.method + " only");
    return found->second.what;
}

Wanted::Wanted(HttpRequest const& request) : what(whatOf(request)) {
    if (changes()) {
        takeBody(*this, bodyOf(request));
        return;
    }
    names = what == What::kEvents ? patterns(request, "values") : all(request, "name");
    ids = all(request, "id");
    member = request.parameter("member");
    if (what == What::kGet || what == What::kShow)
        checkNames(*this);
    calls = patterns(request, "calls");
    className = request.parameter("class");
    process = request.parameter("process");
    processes = request.parameter("processes") == "1";
    since = numberIn(request.header("last-event-id"));
}
