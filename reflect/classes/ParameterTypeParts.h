// What the files of TreflectParameterType share.
#pragma once

#include <string_view>
#include <utility>

#include "reflect/TreflectParameterType.h"
#include "reflect/classes/TextCursor.h"

/** Makes the nodes of a type from its name. */
class TreflectParameterType::Compiler {
public:
    explicit Compiler(TextCursor& text) : text_(text) {}

    /** Reads one name; false when there is none, and then the nodes are of no use. */
    bool compile() { return compile(1); }
    std::vector<Node> takeNodes() { return std::move(nodes_); }

private:
    bool compile(int depth);
    bool compileStruct(int depth);
    bool compileNamed(int depth);

    TextCursor& text_;
    std::vector<Node> nodes_;
};
