#include "base/file.h"

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace Base {

char* File::convert_path(char* dst, const char* src) {
    if (dst != src) std::memmove(dst, src, std::strlen(src) + 1);
    for (char* c = dst; *c; ++c)
        if (*c == '\\') *c = '/';
    return dst;
}

char* File::get_parent_path(char* dst, const char* path) {
    convert_path(dst, path);
    char* slash = std::strrchr(dst, '/');
    if (slash == nullptr)
        std::strcpy(dst, ".");
    else
        *slash = '\0';
    return dst;
}

char* File::get_child_path(char* dst, const char* path, const char* child) {
    convert_path(dst, path);
    std::strcat(dst, "/");
    std::strcat(dst, child);
    return dst;
}

void File::get_name(char* dir, char* name, char* extension, const char* path, char dot) {
    const char* base = path;
    const char* slash = nullptr;
    for (const char* c = path; *c; ++c)
        if (*c == '/' || *c == '\\') slash = c;
    if (dir) {
        if (slash == nullptr) {
            std::strcpy(dir, ".");
        } else {
            size_t length = size_t(slash - path);
            std::memcpy(dir, path, length);
            dir[length] = '\0';
            convert_path(dir, dir);
        }
    }
    if (slash) base = slash + 1;
    const char* found = std::strrchr(base, dot);
    size_t name_length = found ? size_t(found - base) : std::strlen(base);
    std::memcpy(name, base, name_length);
    name[name_length] = '\0';
    if (extension) std::strcpy(extension, found ? found : "");
}

bool File::is_exist(const char* path) { return access(path, F_OK) == 0; }

bool File::remove(const char* path) { return std::remove(path) == 0; }

bool File::rename(const char* from, const char* to) { return std::rename(from, to) == 0; }

bool File::set_length(FILE* file, long length) {
    std::rewind(file);
    return ftruncate64(fileno(file), length) == 0;
}

bool File::get_length(FILE* file, long& length) {
    struct stat64 info;
    if (fflush(file) != 0 || fstat64(fileno(file), &info) != 0) return false;
    length = long(info.st_size);
    return true;
}

long File::get_last_modify_time(FILE* file) {
    struct stat64 info;
    if (fstat64(fileno(file), &info) != 0) return -1;
    return long(info.st_mtime);
}

bool File::truncate(FILE* file) {
    long position = 0;
    if (!get_pos(file, position) || fflush(file) != 0) return false;
    return ftruncate64(fileno(file), position) == 0;
}

bool File::get_pos(FILE* file, long& position) {
    position = long(ftello64(file));
    return position >= 0;
}

bool File::set_pos(FILE* file, long position) { return fseeko64(file, position, SEEK_SET) == 0; }

bool File::read_line(FILE* file, char* buffer, int size) {
    std::memset(buffer, 0, size_t(size));
    if (std::fgets(buffer, size, file) == nullptr) return false;
    buffer[std::strcspn(buffer, "\r\n")] = '\0';
    return true;
}

}  // namespace Base
