// Seeds of the parameter target: names of types, each with a value as text or as bytes.
#include "FuzzProcess.h"

int main(int argc, char** argv) {
    fuzz::SeedFolder const folder(argc, argv);
    folder.write("numbers", "sequence<{int,unsigned,bool}>\n[{-1, 0x10, true}, {7, 8, 0}]");
    folder.write("texts",
                 "{string,sequence<string>}\n{\"q \\\" \\\\ \\n \\x7F\", [bare word, \",\"]}");
    folder.write("names", "sequence<oid>\n[lamp, \"lamp\"@node, lamp@7]");
    folder.write("any", "any\n{int,any}({1, any(unsigned(42))})");
    folder.write("object", "object\n\"\"");
    folder.write("bytes", std::string("{string,object}\n\0\0\0\1a\0\0\0\1b\0\0\0\1\0\0\0\2\0\0\0\3",
                                      16 + 5 + 17));
    return 0;
}
