// Requests of unknown origin to `reflectorb web`: who is let in, what is wanted, and values of JSON
// by their types.
#include <optional>

#include "FuzzProcess.h"
#include "Script.h"
#include "tool/Failure.h"
#include "tool/Values.h"
#include "tool/web/Gate.h"
#include "tool/web/Wanted.h"

namespace {

constexpr char kToken[] = "0123456789abcdef";

void require(bool holds) {
    if (!holds)
        std::abort();
}

HttpRequest requestOf(fuzz::Script& script) {
    constexpr char const* kHeaders[] = {"host", "origin", "authorization", "content-type",
                                        "last-event-id"};
    constexpr char const* kParameters[] = {"name",      "values", "calls", "class",
                                           "processes", "token",  "id",    "member"};
    HttpRequest request;
    request.method = script.byte() & 1 ? "POST" : "GET";
    request.path = script.text();
    for (char const* const name : kHeaders) {
        for (int count = script.byte() % 3; count > 0; --count)
            request.headers.emplace(name, script.text());
    }
    for (char const* const name : kParameters) {
        for (int count = script.byte() % 3; count > 0; --count)
            request.query.emplace(name, script.text());
    }
    request.body = script.text();
    return request;
}

/** Nobody gets in without the token, or by a name that anybody can have lead here. */
void knock(HttpRequest const& request) {
    try {
        Gate({kToken, false, "", 8047, false}).check(request);
    } catch (Failure const&) {
        return;
    }
    std::string const host = lowerCase(request.header("host"));
    require(host == "localhost:8047" || host == "127.0.0.1:8047" || host == "[::1]:8047");
    require(request.parameter("token") == kToken ||
            request.header("authorization") == std::string("Bearer ") + kToken);
    require(request.headers.count("origin") == 0 ||
            lowerCase(request.header("origin")) == "http://" + host);
}

std::optional<Shown> read(TreflectParameterType const& type, Json const& json) {
    try {
        return show({type}, 0, parseJson({type}, Json::array({json}))[0]);
    } catch (Failure const&) {
        return std::nullopt;  // it is none of this type
    }
}

/** What is told of a value as JSON makes the same value again. */
void convert(Json const& json) {
    static Types const types = {TreflectParameterType("unsigned"),
                                TreflectParameterType("int64"),
                                TreflectParameterType("double"),
                                TreflectParameterType("bool"),
                                TreflectParameterType("string"),
                                TreflectParameterType("bytes"),
                                TreflectParameterType("enum Colour{Red, Green=7}"),
                                TreflectParameterType("sequence<string>"),
                                TreflectParameterType("optional<double>"),
                                TreflectParameterType("map<string, sequence<unsigned>>"),
                                TreflectParameterType("struct Spot{int x, string name}")};
    for (TreflectParameterType const& type : types) {
        std::optional<Shown> const shown = read(type, json);
        if (!shown || shown->text.find("\\x00") != std::string::npos)
            continue;
        std::optional<Shown> const again = read(type, shown->json);
        require(again && again->text == shown->text);
    }
}

std::optional<Wanted> wantedIn(HttpRequest const& request) {
    try {
        return Wanted(request);
    } catch (Failure const&) {
        return std::nullopt;
    }
}

void runHttp(std::uint8_t const* data, std::size_t size) {
    fuzz::Script script(data, size);
    HttpRequest const request = requestOf(script);
    knock(request);
    std::optional<Wanted> const wanted = wantedIn(request);
    if (!wanted)
        return;
    bool const isNamed = wanted->names.empty() != wanted->ids.empty();
    require(!wanted->changes() || (request.method == "POST" && isNamed));
    require(!wanted->changes() || wanted->ids.empty() || !wanted->member.empty());
    convert(wanted->value);
    for (Json const& argument : wanted->arguments)
        convert(argument);
}

}  // namespace

FUZZ_TARGET(http, runHttp)
