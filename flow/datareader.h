// Base::DataReader: a flow reader that falls back on the flow's file.
//
// It reads from memory through an Iterator while the records it wants are
// still there, and through a FileReader when they may have been recycled:
// a record lies in memory when the reader's recycle cell is at most
// recycle_margin ahead of it (the recycler keeps that many records behind
// its slowest cell). Once the file reader has caught up with the cell, the
// reader goes back to memory by itself.
//
// read() gathers adjacent records into one stretch, so that a channel can
// send a run of frames with one system call. A run ends where its block
// does: the step into the next block or version may hand the run's block
// back to the writer, so it is taken at the next read(), once the caller is
// done with the run. The reader belongs to one thread and never locks.
#pragma once

#include "flow/dataflow.h"

namespace Base {

class Reportable;
class Vector;

class DataReader {
public:
    DataReader();
    DataReader(DataFlow* flow, Notify* notify, DataFlow::ReadCallback* callback,
               unsigned long* recycle_pos, unsigned long recycle_margin, const char* path,
               unsigned long offset_step, Vector* offsets, Reportable* reporter);
    virtual ~DataReader();
    virtual DataFlow::FileReader* create_file_reader();

    bool seek(unsigned long id);
    bool available();
    // Id of the next record that read() hands out.
    unsigned long tell() const;
    void reset();
    // At most length bytes of whole, adjacent records, or exactly one record
    // when length is 0; sets length to what was given. Null when none.
    const char* read(unsigned short& length);

    DataFlow* get_flow() const { return iterator ? iterator->get_flow() : flow; }
    DataFlow::Iterator* get_iterator() const { return iterator; }
    bool in_file() const { return file_reader != nullptr; }

protected:
    void init(DataFlow* flow, DataFlow::Iterator* iterator, unsigned long recycle_margin,
              const char* path, unsigned long offset_step, Vector* offsets, Reportable* reporter);

    DataFlow* flow;
    DataFlow::Iterator* iterator;
    unsigned long recycle_margin;
    char path[256];
    unsigned long offset_step;
    Vector* offsets;
    DataFlow::FileReader* file_reader;
    const DataFlow::Item* pending;
    Reportable* reporter;

private:
    DataReader(const DataReader&) = delete;
    DataReader& operator=(const DataReader&) = delete;
};

}  // namespace Base
