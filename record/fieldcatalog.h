// A catalogue of record descriptions and packet ids: four maps (record name
// and record id to description, packet id to name and name to id), the
// lookups on them, and their binary dump. Each generated family registers
// into its own four maps before main; lookups are read-only afterwards.
//
// Dump, numbers outside the blobs in host order:
//   u32 record count, then per record: u32 blob length, blob (the
//   description's var form); u32 packet count, then per packet: u16 id,
//   u32 name length with terminator, the name and its terminator.
#pragma once

namespace Base {

class FieldDesc;
class Map;

struct FieldCatalog {
    Map* name_map;         // record name (key size 64) -> FieldDesc*
    Map* field_map;        // record id (u16) -> FieldDesc*
    Map* packet_map;       // packet id (u16) -> name (64 bytes)
    Map* packet_name_map;  // packet name (key size 64) -> id (u16)
};

struct CatalogPacket {
    unsigned short id;
    const char* name;
};

void register_catalog_field(const FieldCatalog& catalog, FieldDesc* desc);
void register_catalog_packet(const FieldCatalog& catalog, unsigned short id, const char* name);

FieldDesc* catalog_field(const FieldCatalog& catalog, const char* name);
FieldDesc* catalog_field(const FieldCatalog& catalog, unsigned short id);
const char* catalog_packet_name(const FieldCatalog& catalog, unsigned short id);
unsigned short catalog_packet_id(const FieldCatalog& catalog, const char* name);

// 1 on success, 0 on failure. A load empties all four maps first, even when
// the file can't be opened; what it entered before a failure stays.
int save_catalog(const FieldCatalog& catalog, const char* path);
int load_catalog(const FieldCatalog& catalog, const char* path);

}  // namespace Base
