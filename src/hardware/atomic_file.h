// Result files are written whole or not at all: a reader (the archive, a
// browser download) never sees a half-written report, and a crash leaves the
// previous file in place.
#pragma once

#include <string>

// Writes content to a temporary file beside path, flushes it, then renames it
// over path. False with err when any step fails; the temporary is removed.
bool write_file_atomically(const std::string& path, const std::string& content, std::string& err);
