#include "record/fieldcatalog.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "record/fielddesc.h"
#include "record/fieldswap.h"
#include "containers/map.h"

namespace Base {

namespace {

const int NAME_SIZE = 64;  // key size of the name maps and value size of the packet map

bool write_all(FILE* file, const void* data, size_t size) { return std::fwrite(data, 1, size, file) == size; }
bool read_all(FILE* file, void* data, size_t size) { return std::fread(data, 1, size, file) == size; }

// Closes the file on every way out.
struct File {
    FILE* f;
    explicit File(FILE* file) : f(file) {}
    ~File() {
        if (f) std::fclose(f);
    }
};

// Loaded descriptions live for the process, since lookups may have handed
// them out; this list keeps them reachable.
struct LoadedDesc {
    FieldDesc* desc;
    LoadedDesc* next;
};
LoadedDesc* g_loaded_descs = nullptr;

}  // namespace

void register_catalog_field(const FieldCatalog& catalog, FieldDesc* desc) {
    catalog.name_map->insert(desc->name, desc);
    catalog.field_map->insert(&desc->id, desc);
}

void register_catalog_packet(const FieldCatalog& catalog, unsigned short id, const char* name) {
    // The packet map copies a whole name slot, so the name goes through one.
    char slot[NAME_SIZE] = {};
    size_t length = std::strlen(name);
    std::memcpy(slot, name, length < NAME_SIZE - 1 ? length : NAME_SIZE - 1);
    catalog.packet_map->insert(&id, slot);
    catalog.packet_name_map->insert(slot, &id);
}

FieldDesc* catalog_field(const FieldCatalog& catalog, const char* name) {
    if (!name || std::strlen(name) >= static_cast<size_t>(NAME_SIZE)) return nullptr;
    return static_cast<FieldDesc*>(catalog.name_map->search(name));
}

FieldDesc* catalog_field(const FieldCatalog& catalog, unsigned short id) {
    return static_cast<FieldDesc*>(catalog.field_map->search(&id));
}

const char* catalog_packet_name(const FieldCatalog& catalog, unsigned short id) {
    return static_cast<const char*>(catalog.packet_map->search(&id));
}

unsigned short catalog_packet_id(const FieldCatalog& catalog, const char* name) {
    if (!name || std::strlen(name) >= static_cast<size_t>(NAME_SIZE)) return 0;
    const void* id = catalog.packet_name_map->search(name);
    return id ? load_host<unsigned short>(id) : 0;
}

int save_catalog(const FieldCatalog& catalog, const char* path) {
    File file(std::fopen(path, "w+b"));
    if (!file.f) return 0;
    // A blob never exceeds the size of the description it comes from.
    std::unique_ptr<unsigned char[]> blob(new unsigned char[sizeof(FieldDesc)]);
    unsigned int count = catalog.field_map->get_count();
    if (!write_all(file.f, &count, 4)) return 0;
    for (Map::Iterator it(catalog.field_map, nullptr, false); !it.is_end();) {
        const FieldDesc* desc = static_cast<const FieldDesc*>(it.next());
        int length = desc->to_var_stream(blob.get(), static_cast<int>(sizeof(FieldDesc)));
        if (length < 0 || !write_all(file.f, &length, 4) || !write_all(file.f, blob.get(), length)) return 0;
    }
    count = catalog.packet_map->get_count();
    if (!write_all(file.f, &count, 4)) return 0;
    for (Map::Iterator it(catalog.packet_map, nullptr, true); !it.is_end();) {
        const Map::Node* node = static_cast<const Map::Node*>(it.next());
        unsigned short id = load_host<unsigned short>(node->key);
        const char* name = static_cast<const char*>(node->value);
        unsigned int length = static_cast<unsigned int>(std::strlen(name)) + 1;
        if (!write_all(file.f, &id, 2) || !write_all(file.f, &length, 4) || !write_all(file.f, name, length))
            return 0;
    }
    return std::fflush(file.f) == 0 ? 1 : 0;
}

int load_catalog(const FieldCatalog& catalog, const char* path) {
    catalog.name_map->clear();
    catalog.field_map->clear();
    catalog.packet_map->clear();
    catalog.packet_name_map->clear();
    File file(std::fopen(path, "rb"));
    if (!file.f) return 0;
    std::unique_ptr<unsigned char[]> blob(new unsigned char[sizeof(FieldDesc)]);
    unsigned int count;
    if (!read_all(file.f, &count, 4)) return 0;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int length;
        if (!read_all(file.f, &length, 4) || length > sizeof(FieldDesc) || !read_all(file.f, blob.get(), length))
            return 0;
        FieldDesc* desc = new FieldDesc(0, "");
        if (desc->from_var_stream(blob.get(), static_cast<int>(length)) < 0) {
            delete desc;
            return 0;
        }
        g_loaded_descs = new LoadedDesc{desc, g_loaded_descs};
        register_catalog_field(catalog, desc);
    }
    if (!read_all(file.f, &count, 4)) return 0;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned short id;
        unsigned int length;
        char name[NAME_SIZE] = {};
        if (!read_all(file.f, &id, 2) || !read_all(file.f, &length, 4) || length == 0 || length > NAME_SIZE ||
            !read_all(file.f, name, length) || name[length - 1] != 0)
            return 0;
        register_catalog_packet(catalog, id, name);
    }
    return 1;
}

}  // namespace Base
