// Bodies of the files the emulator serves for downloads: small PDF documents
// made on the fly, and byte runs of a given length.
#pragma once
#include <cstddef>
#include <string>

namespace tpcsdk::emulator {

// A one-page PDF document showing `title` and `line` (printable ASCII; other
// bytes become '?'), with a correct cross-reference table.
std::string MakePdf(const std::string& title, const std::string& line);

// `n` bytes whose value at offset i is i % 251, so that a shifted or repeated
// piece of a copy shows.
std::string PatternBytes(size_t n);

}  // namespace tpcsdk::emulator
