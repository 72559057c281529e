#include "flow/flowfile.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "containers/vector.h"

namespace Base {

static void put16(char* p, unsigned short v) {
    p[0] = static_cast<char>(v >> 8);
    p[1] = static_cast<char>(v);
}

static unsigned short get16(const char* p) {
    return static_cast<unsigned short>(static_cast<unsigned char>(p[0]) << 8 |
                                       static_cast<unsigned char>(p[1]));
}

static void put32(char* p, unsigned int v) {
    p[0] = static_cast<char>(v >> 24);
    p[1] = static_cast<char>(v >> 16);
    p[2] = static_cast<char>(v >> 8);
    p[3] = static_cast<char>(v);
}

static unsigned short version16(void* version) {
    return static_cast<unsigned short>(reinterpret_cast<uintptr_t>(version));
}

char* make_flow_file_name(const char* dir, const char* name, unsigned short subject, char* out) {
    int n = 0;
    out[0] = 0;
    if (dir) n = std::snprintf(out, 256, "%s%c", dir, '/');
    if (n < 0 || n > 255) n = 255;
    if (name)
        std::snprintf(out + n, 256 - n, "%s.flow", name);
    else
        std::snprintf(out + n, 256 - n, "%08x.flow", subject);
    return out;
}

void cut_and_close(FILE*& file, long length) {
    std::fseek(file, 0, SEEK_SET);
    if (ftruncate64(fileno(file), length) != 0) {
        // The file stays as it is; a Saver appends behind the tail.
    }
    std::fclose(file);
    file = nullptr;
}

void offsets_extend(Vector* offsets, unsigned long offset_step, unsigned long position) {
    if (!offset_step || !offsets || position == 0) return;
    unsigned int index = static_cast<unsigned int>((position - 1) / offset_step);
    // Only grows the table: entries that a Loader filled stay.
    if (index >= offsets->get_count()) offsets->set(index, nullptr);
}

void offsets_note(Vector* offsets, unsigned long offset_step, unsigned long id, long offset) {
    if (!offset_step || !offsets || id % offset_step != 0) return;
    unsigned long value = static_cast<unsigned long>(offset);
    // Vector::set writes the entry, fences, and only then raises the count
    // that FileReaders on other threads read.
    offsets->set(static_cast<unsigned int>(id / offset_step), &value);
}

// ---------------------------------------------------------------- Saver

DataFlow::Saver::Saver(DataFlow* saved, const char* dir, const char* name, bool append,
                       unsigned long* cell, unsigned long step, Vector* table)
    : Iterator(saved, nullptr, nullptr, cell),
      file(nullptr),
      version(reinterpret_cast<uintptr_t>(saved->get_version())),
      offset_step(step),
      offsets(table) {
    char path[256];
    saved->get_file_name(dir, name, path);
    if (!append) std::remove(path);
    file = std::fopen(path, "a+b");
    if (!file) return;
    std::fseek(file, 0, SEEK_END);
    if (std::ftell(file) > 0) {
        // The file holds the flow so far (a Loader has just loaded it).
        seek(saved->get_count());
        return;
    }
    char header[2];
    put16(header, static_cast<unsigned short>(version));
    if (std::fwrite(header, 1, 2, file) != 2 || std::fflush(file) != 0) {
        std::fclose(file);
        file = nullptr;
        return;
    }
    offsets_extend(offsets, offset_step, position);
}

DataFlow::Saver::~Saver() {
    if (file) {
        while (save_one() > 0) {
        }
        std::fclose(file);
    }
}

int DataFlow::Saver::invoke() {
    if (!file) return -1;
    return save_one();
}

bool DataFlow::Saver::restart_file(unsigned short new_version) {
    char header[2];
    put16(header, new_version);
    if (std::fflush(file) != 0 || ftruncate64(fileno(file), 0) != 0 ||
        std::fseek(file, 0, SEEK_SET) != 0 || std::fwrite(header, 1, 2, file) != 2 ||
        std::fflush(file) != 0) {
        std::fclose(file);
        file = nullptr;
        return false;
    }
    // The table described the old version's file.
    if (offsets) offsets->clear();
    return true;
}

int DataFlow::Saver::save_one() {
    if (!file) return -1;
    hop();
    if (!flow || flow->get_count() <= position) return 0;
    unsigned long flow_version = reinterpret_cast<uintptr_t>(flow->get_version());
    if (flow_version != version) {
        if (!restart_file(static_cast<unsigned short>(flow_version))) return -1;
        version = flow_version;
    }
    long at = std::ftell(file);
    unsigned long id = position;
    const Item* record = next();
    if (!record) return 0;
    char word[4];
    put32(word, record->length);
    if (std::fwrite(word, 1, 4, file) != 4) return -1;
    if (record->length && std::fwrite(record->data, 1, record->length, file) != record->length)
        return -1;
    if (std::fflush(file) != 0) return -1;
    offsets_note(offsets, offset_step, id, at);
    return 1;
}

// ---------------------------------------------------------------- Loader

DataFlow::Loader::Loader(DataFlow* loaded, const char* dir, const char* name, unsigned long step,
                         Vector* table)
    : flow(loaded), file(nullptr), offset_step(step), offsets(table), last(nullptr) {
    char path[256];
    make_flow_file_name(dir, name, loaded->get_subject(), path);
    file = std::fopen(path, "r+b");
    if (!file) return;
    char header[2];
    if (std::fread(header, 1, 2, file) != 2) {
        std::fclose(file);
        file = nullptr;
        return;
    }
    unsigned short file_version = get16(header);
    unsigned short flow_version = version16(loaded->get_version());
    if (flow_version > file_version) {
        std::fclose(file);
        file = nullptr;
        std::remove(path);
        return;
    }
    if (flow_version < file_version)
        loaded->shift(reinterpret_cast<void*>(static_cast<uintptr_t>(file_version)));
}

DataFlow::Loader::~Loader() {
    if (file) std::fclose(file);
}

bool DataFlow::Loader::invoke() {
    if (!file) return false;
    long start = std::ftell(file);
    unsigned char word[4];
    if (std::fread(word, 1, 4, file) == 4) {
        unsigned short length = static_cast<unsigned short>(word[2] << 8 | word[3]);
        char* room = flow->alloc_object(length);
        if (std::fread(room, 1, length, file) == length) {
            offsets_note(offsets, offset_step,
                         flow->get_start_id() + flow->mem->stored.load(std::memory_order_relaxed),
                         start);
            flow->commit_object(length, false);
            last = room;
            return true;
        }
    }
    // The end, or a torn tail: the file ends with the last whole record.
    cut_and_close(file, start);
    return false;
}

void DataFlow::Loader::truncate() {
    if (file) cut_and_close(file, 0);
}

// ---------------------------------------------------------------- FileReader

DataFlow::FileReader::FileReader(unsigned short flow_subject, unsigned long start,
                                 const char* path, unsigned long step, Vector* table)
    : subject(flow_subject),
      start_id(start),
      positioned(0),
      position(start),
      version(0),
      file(std::fopen(path, "rb")),
      offset_step(step),
      offsets(table) {}

DataFlow::FileReader::~FileReader() {
    if (file) std::fclose(file);
}

bool DataFlow::FileReader::read_version() {
    char header[2];
    if (std::fread(header, 1, 2, file) != 2) return false;
    version = get16(header);
    return true;
}

bool DataFlow::FileReader::read_data_len(unsigned short& size) {
    unsigned char word[4];
    if (std::fread(word, 1, 4, file) != 4) return false;
    size = static_cast<unsigned short>(word[2] << 8 | word[3]);
    return true;
}

bool DataFlow::FileReader::prepare_data(unsigned short size, unsigned short want,
                                        unsigned short& used) {
    return want == 0 || size <= want - used;
}

void DataFlow::FileReader::adjust_data(char*, unsigned short) {}

bool DataFlow::FileReader::seek(unsigned long id) {
    positioned = 0;
    if (!file || start_id > id) return false;
    position = id;
    version = 0;
    if (std::fseek(file, 0, SEEK_SET) != 0 || !read_version()) return false;
    unsigned long at = start_id;
    if (offset_step && offsets) {
        unsigned long entries = offsets->get_count();
        if (entries > 0 && start_id <= (entries - 1) * offset_step) {
            unsigned long j = id / offset_step;
            if (j > entries - 1) j = entries - 1;
            const unsigned long* offset =
                static_cast<const unsigned long*>(offsets->get(static_cast<unsigned int>(j)));
            if (offset && *offset != 0 && j * offset_step >= start_id) {
                if (std::fseek(file, static_cast<long>(*offset), SEEK_SET) != 0) return false;
                at = j * offset_step;
            }
        }
    }
    while (at < id) {
        unsigned short size;
        if (!read_data_len(size)) return false;
        if (std::fseek(file, size, SEEK_CUR) != 0) return false;
        at += 1;
    }
    positioned = 1;
    return true;
}

const char* DataFlow::FileReader::read(unsigned short& length) {
    if (!file) return nullptr;
    if (!positioned && !seek(position)) return nullptr;
    unsigned short used = 0;
    for (;;) {
        if (length != 0 && used >= length) break;
        fpos64_t mark;
        if (fgetpos64(file, &mark) != 0) break;
        unsigned short size;
        unsigned short used_before = used;
        bool whole = read_data_len(size) && prepare_data(size, length, used) &&
                     std::fread(buffer + used, 1, size, file) == size;
        if (!whole) {
            // Not whole yet (a Saver may be writing it) or too big for what
            // is left: step back and leave it for the next call.
            fsetpos64(file, &mark);
            used = used_before;
            break;
        }
        adjust_data(buffer + used, size);
        position += 1;
        used = static_cast<unsigned short>(used + size);
        if (length == 0) break;
    }
    if (used == 0) return nullptr;
    length = used;
    return buffer;
}

}  // namespace Base
