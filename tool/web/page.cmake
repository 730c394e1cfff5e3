# Makes the page one text, which a function of the program returns: cmake -DFROM=... -DTO=... -P.
file(READ "${FROM}/page.html" page)
foreach(part css js)
    file(READ "${FROM}/page.${part}" text)
    string(REPLACE "{{page.${part}}}" "${text}" page "${page}")
endforeach()
# A literal may not be as long as the page.
set(literals "")
string(LENGTH "${page}" length)
set(at 0)
while(at LESS length)
    string(SUBSTRING "${page}" ${at} 8000 piece)
    string(APPEND literals "    R\"page(${piece})page\"\n")
    math(EXPR at "${at} + 8000")
endwhile()
file(WRITE "${TO}" "#include \"web/Page.h\"

namespace {

constexpr char kPage[] =
${literals};

}  // namespace

std::string pageText(std::string const& once) {
    constexpr char kMark[] = \"{{once}}\";
    std::string text = kPage;
    for (std::size_t at = 0; (at = text.find(kMark, at)) != std::string::npos;)
        text.replace(at, sizeof kMark - 1, once);
    return text;
}
")
