#include "whole_file.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include "text_format.h"

namespace zdtool {

std::string read_whole(const std::string &path) {
    const bool is_standard = path == "-";
    const std::unique_ptr<FILE, int (*)(FILE *)> file(is_standard ? stdin
                                                                  : std::fopen(path.c_str(), "rb"),
                                                      is_standard ? std::fflush : std::fclose);
    std::string bytes;
    char part[1 << 16];
    if (file != nullptr) {
        for (size_t size; (size = std::fread(part, 1, sizeof part, file.get())) != 0;)
            bytes.append(part, size);
    }
    if (file == nullptr || std::ferror(file.get()) != 0)
        throw std::system_error(errno, std::generic_category(), shown_path(path));
    return bytes;
}

std::string shown_path(const std::string &path) {
    return path == "-" ? "standard input" : programs::printable(path);
}

} // namespace zdtool
