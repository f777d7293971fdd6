// Output files that appear whole or not at all.
//
// The data go to a temporary file beside the destination, which is renamed
// over it only when everything has been written; on failure (or on Ctrl-C)
// the temporary file is removed and an existing destination stays as it was.
// Destinations that are not regular files (/dev/null, a pipe, a terminal)
// are written directly, and "-" is standard output.
#ifndef EVRC_TOOLS_OUTPUT_FILE_H
#define EVRC_TOOLS_OUTPUT_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace evrc_tool {

class OutputFile {
public:
    OutputFile() = default;
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    ~OutputFile();

    // Opens the place the data go; on failure returns false with the reason
    // in `error` (without the path).
    bool open(const std::string &path, std::string &error);
    int fd() const { return fd_; }
    bool is_stdout() const { return path_ == "-"; }
    // Appends bytes at the file position.
    bool write(const void *data, std::size_t size, std::string &error);
    // Closes the file and moves it into place.
    bool commit(std::string &error);

private:
    void discard();

    std::string path_;
    std::string temp_;  // empty when writing to the destination directly
    int fd_ = -1;
};

// True when both paths name the same existing file.
bool same_file(const std::string &a, const std::string &b);

}  // namespace evrc_tool

#endif  // EVRC_TOOLS_OUTPUT_FILE_H
