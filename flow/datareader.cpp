#include "flow/datareader.h"

#include "flow/flowfile.h"
#include "base/reportable.h"
#include "base/strings.h"

namespace Base {

static const char* const TAG = "DataReader";

DataReader::DataReader()
    : flow(nullptr),
      iterator(nullptr),
      recycle_margin(0),
      path{},
      offset_step(0),
      offsets(nullptr),
      file_reader(nullptr),
      pending(nullptr),
      reporter(nullptr) {}

DataReader::DataReader(DataFlow* reading, Notify* notify, DataFlow::ReadCallback* callback,
                       unsigned long* recycle_pos, unsigned long margin, const char* file_path,
                       unsigned long step, Vector* table, Reportable* reports)
    : DataReader() {
    init(reading, new DataFlow::Iterator(reading, notify, callback, recycle_pos), margin,
         file_path, step, table, reports);
}

void DataReader::init(DataFlow* reading, DataFlow::Iterator* walker, unsigned long margin,
                      const char* file_path, unsigned long step, Vector* table,
                      Reportable* reports) {
    flow = reading;
    iterator = walker;
    recycle_margin = margin;
    str_ncpy(sizeof(path) - 1, path, file_path ? file_path : "");
    offset_step = step;
    offsets = table;
    reporter = reports;
    if (flow) seek(flow->get_start_id());
}

DataReader::~DataReader() {
    delete file_reader;
    delete iterator;
}

DataFlow::FileReader* DataReader::create_file_reader() {
    DataFlow* f = get_flow();
    return new DataFlow::FileReader(f->get_subject(), f->get_start_id(), path, offset_step,
                                    offsets);
}

bool DataReader::seek(unsigned long id) {
    flow = get_flow();
    if (!flow || flow->get_start_id() > id) return false;
    unsigned long published = flow->get_count();
    if (id > published) id = published;
    pending = nullptr;
    unsigned long mark = iterator->get_recycle_pos();
    if (mark <= id + recycle_margin) {
        if (file_reader) {
            delete file_reader;
            file_reader = nullptr;
            if (reporter)
                reporter->report(5, TAG,
                                 "delete file reader subject=[0x%04x] id=[%lu] recycle_pos=[%lu] "
                                 "[%p]",
                                 flow->get_subject(), id, mark, static_cast<void*>(this));
        }
        return iterator->seek(id);
    }
    if (!file_reader) {
        file_reader = create_file_reader();
        if (reporter)
            reporter->report(5, TAG,
                             "create file reader subject=[0x%04x] id=[%lu] recycle_pos=[%lu] [%p]",
                             flow->get_subject(), id, mark, static_cast<void*>(this));
    }
    return file_reader->seek(id);
}

bool DataReader::available() {
    if (file_reader || pending) return true;
    if (!iterator) return false;
    bool ready = iterator->has_record();
    flow = iterator->get_flow();
    return ready;
}

unsigned long DataReader::tell() const {
    if (file_reader) return file_reader->tell();
    if (!iterator) return 0;
    // A pending record has been taken from the iterator but not handed out.
    return iterator->get_position() - (pending ? 1 : 0);
}

void DataReader::reset() {
    pending = nullptr;
    delete file_reader;
    file_reader = nullptr;
    DataFlow* f = get_flow();
    iterator->detach();
    iterator->attach(f);
    flow = f;
}

const char* DataReader::read(unsigned short& length) {
    if (file_reader) {
        unsigned long at = file_reader->tell();
        if (at + recycle_margin < iterator->get_recycle_pos()) return file_reader->read(length);
        // Caught up with memory: this deletes the file reader.
        seek(at);
        if (file_reader) return file_reader->read(length);
    }
    const DataFlow::Item* record = pending ? pending : iterator->next();
    pending = record;  // held until it is handed out
    if (!record) {
        length = 0;
        return nullptr;
    }
    unsigned int total = 0;
    const char* start = nullptr;
    for (;;) {
        if (length == 0) length = record->length;
        if (total + record->length > length) break;
        if (start && record->data != start + total) break;  // not adjacent: a block change
        if (!start) start = record->data;
        pending = nullptr;
        total += record->length;
        if (total >= length) break;
        // The run is still to be used: do not step out of its block.
        if (!iterator->next_in_place()) break;
        record = iterator->next();
        if (!record) break;
        pending = record;
    }
    flow = iterator->get_flow();
    length = static_cast<unsigned short>(total);
    return start;
}

}  // namespace Base
