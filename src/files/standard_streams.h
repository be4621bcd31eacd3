// Words for a console, a log or a pipe, which may be full, closed or gone.
//
// Nobody's work is lost for want of words: these routines report, and never throw or end the
// program.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kestrelvane {

// To be called before the first file is opened. A standard stream that the caller has closed
// is opened on nothing: its number would otherwise go to the next file, and words to the
// console into that. A reader that has gone away makes writes fail and does not end the program.
void secure_standard_streams();

// Writes all of a text into the stream's buffer. False when that failed.
bool put_text(std::FILE* stream, std::string_view text);

// Writes a result on standard output and hands it to the system. False with the system's words;
// these are empty where the reader has closed a pipe, having seen what it wanted.
bool put_result(std::string_view text, std::string& problem);

}  // namespace kestrelvane
