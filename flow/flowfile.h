// Flow files: a flow mirrored record by record, so that a restarted process
// can load it back and a reader that fell behind recycling can read on.
//
// File name: [dir/]%08x.flow with the subject, or [dir/]%s.flow with a name.
// Layout, all integers big-endian:
//   0  u16 version (low 16 bits of the flow's version)
//   2  u32 length n of the first record (upper 16 bits zero), n bytes
//   then further length words and records up to the end of the file.
// No ids are stored: a record's id is its place counted from start_id. A
// file holds one version; a new version cuts it to nothing and starts over.
//
// Saver follows a flow as a reader and appends with a flush per record, so a
// crash costs at most the record being written. Loader feeds a file back
// into a flow and cuts a torn tail off, leaving the file ready for a Saver.
// FileReader reads a file on behalf of a DataReader, possibly while a Saver
// appends to it: a record that is not whole yet is stepped back over.
//
// The optional offset table (offset_step s, a Vector of u64) holds at index
// j the file offset of the length word of the record with id j * s, 0 when
// unknown. It lives in memory only; one Saver or Loader fills it, and
// FileReaders on other threads read entries below the Vector's count.
#pragma once

#include <cstdio>

#include "flow/dataflow.h"

namespace Base {

class Vector;

// Forms "[dir/]%08x.flow" or "[dir/]%s.flow" into out (256 bytes).
char* make_flow_file_name(const char* dir, const char* name, unsigned short subject, char* out);

class DataFlow::Saver : public DataFlow::Iterator {
public:
    Saver(DataFlow* flow, const char* dir, const char* name, bool append,
          unsigned long* recycle_pos, unsigned long offset_step, Vector* offsets);
    ~Saver() override;

    // 1 when a record was saved, 0 when there is nothing to save, -1 when
    // the file is closed or a write failed.
    int invoke();

protected:
    int save_one();
    bool restart_file(unsigned short new_version);

    FILE* file;
    unsigned long version;
    unsigned long offset_step;
    Vector* offsets;
};

class DataFlow::Loader {
public:
    Loader(DataFlow* flow, const char* dir, const char* name, unsigned long offset_step,
           Vector* offsets);
    ~Loader();

    // Loads one record; false at the end (or at a torn tail, which is cut
    // off), when the file is closed.
    bool invoke();
    const char* get_last() const { return last; }
    // Empties the file, header included, and closes it.
    void truncate();

protected:
    DataFlow* flow;
    FILE* file;
    unsigned long offset_step;
    Vector* offsets;
    const char* last;
};

class DataFlow::FileReader {
public:
    FileReader(unsigned short subject, unsigned long start_id, const char* path,
               unsigned long offset_step, Vector* offsets);
    virtual ~FileReader();
    virtual bool read_version();
    virtual bool read_data_len(unsigned short& size);
    virtual bool prepare_data(unsigned short size, unsigned short want, unsigned short& used);
    virtual void adjust_data(char* data, unsigned short size);

    bool seek(unsigned long id);
    // Gathers whole records into the buffer: at most length bytes, or one
    // record when length is 0. Null when nothing could be taken.
    const char* read(unsigned short& length);
    unsigned long tell() const { return position; }

protected:
    unsigned short subject;
    unsigned long start_id;
    unsigned char positioned;
    unsigned long position;
    unsigned short version;
    FILE* file;
    unsigned long offset_step;
    Vector* offsets;
    char buffer[65536];

private:
    FileReader(const FileReader&) = delete;
    FileReader& operator=(const FileReader&) = delete;
};

// Offset table helpers shared by the savers and loaders of all flow kinds.
void offsets_extend(Vector* offsets, unsigned long offset_step, unsigned long position);
void offsets_note(Vector* offsets, unsigned long offset_step, unsigned long id, long offset);

// Cuts a loader's file to length and closes it (file becomes null): the end
// of a load, where a torn tail is cut back to the last whole record, and the
// loaders' truncate(), which empties the file with a length of 0.
void cut_and_close(FILE*& file, long length);

}  // namespace Base
