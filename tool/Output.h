// What the program writes: for people, or, with --json, for programs.
#pragma once

#include <cstddef>
#include <string>

#include "Json.h"
#include "Settings.h"
#include "Table.h"

/**
 * Collects what a subcommand has to say and writes it when told to: writing may block as long as
 * nobody reads, and the program must be out of the group by then, or write on a thread that holds
 * nothing which others wait for. One thread.
 */
class Output {
public:
    explicit Output(Settings const& settings);

    bool isJson() const { return json_; }
    /** Standard output is a terminal: headings, notes and colours make sense. */
    bool isTerminal() const { return terminal_; }
    /** Columns of the terminal; 0 when nothing is to be cut. */
    std::size_t width() const { return width_; }

    // ---- For people; nothing with --json ----

    void table(Table const& table);
    /** Below a heading, without one of its own. */
    void indented(Table const& table);
    /** A line, cut to the terminal's width unless all is wanted. */
    void line(std::string const& text);
    /** The same as a heading. */
    void heading(std::string const& text);
    /** Lines as they are, whatever their width. */
    void verbatim(std::string const& text);
    /** A line of standard error, if people are there to read it. */
    void note(std::string const& text);

    // ---- For programs; nothing without --json ----

    /** The one document of a subcommand that ends. */
    void document(Json const& json);
    /** One line of a subcommand that goes on. */
    void event(Json const& json);

    /** What goes wrong: a line of standard error. */
    void complain(std::string const& text);

    /** Writes what has been collected. What cannot be written is lost. With a descriptor `unless`:
     * until that is readable; whether all has been written. */
    bool flush(int unless = -1) { return write(unless, true); }
    /** Writes as much of it as is taken at once. */
    void flushWithoutWaiting() { write(-1, false); }
    /** Whether nobody will ever read what is written: the pipe's other end is closed, or writing
     * has failed for another reason. */
    bool isBroken() const;
    /** Whether standard output could not be written, which is complained of then. Not for a pipe
     * that was closed: its reader has got what he wanted. */
    bool hasFailed();

private:
    bool write(int unless, bool waits);
    std::string coloured(char const* colour, std::string const& text) const;

    bool const json_;
    bool const terminal_;
    bool const colours_;
    std::size_t const width_;  // 0: any
    std::string out_;
    std::string error_;
    std::string failure_;
    bool isBroken_ = false;
};
