// Network::LogSaver: drains flows of binary trace records into files.
//
// Flow i (counted from 1) goes to "<prefix>_<i>.slog", opened for appending
// so the file grows across runs. Records are written exactly as they stand
// in the flow, with no framing added: trace records carry their own length.
// on_invoke writes at most 100 records of each flow per call, so that one
// busy flow does not hold up the others; the owner calls it periodically,
// from one thread. A file that cannot be opened drops its flow's records.
#pragma once

#include <cstdio>

#include "flow/dataflow.h"

namespace Network {

class LogSaver {
public:
    static const int RECORDS_PER_CALL = 100;

    LogSaver(const char* prefix, Base::DataFlow** flows, int count);
    virtual ~LogSaver();
    // True when any record was taken.
    virtual bool on_invoke();

private:
    int count;
    Base::DataFlow::Iterator** iterators;
    FILE** files;

    LogSaver(const LogSaver&) = delete;
    LogSaver& operator=(const LogSaver&) = delete;
};

}  // namespace Network
