#include "network/logsaver.h"

namespace Network {

LogSaver::LogSaver(const char* prefix, Base::DataFlow** flows, int flow_count)
    : count(flow_count > 0 ? flow_count : 0),
      iterators(new Base::DataFlow::Iterator*[count > 0 ? count : 1]),
      files(new FILE*[count > 0 ? count : 1]) {
    for (int i = 0; i < count; i++)
        iterators[i] = new Base::DataFlow::Iterator(flows[i], nullptr, nullptr, nullptr);
    for (int i = 1; i <= count; i++) {
        char name[256];
        std::snprintf(name, sizeof(name), "%s_%d.slog", prefix ? prefix : "", i);
        files[i - 1] = std::fopen(name, "ab");
    }
}

LogSaver::~LogSaver() {
    for (int i = 0; i < count; i++)
        if (files[i]) std::fclose(files[i]);
    for (int i = 0; i < count; i++) delete iterators[i];
    delete[] files;
    delete[] iterators;
}

bool LogSaver::on_invoke() {
    bool happened = false;
    for (int i = 0; i < count; i++) {
        for (int n = 0; n < RECORDS_PER_CALL; n++) {
            const Base::DataFlow::Item* record = iterators[i]->next();
            if (!record) break;
            happened = true;
            if (files[i]) {
                // A failed write loses the record for the file; the flow
                // has moved on all the same.
                std::fwrite(record->data, 1, record->length, files[i]);
                std::fflush(files[i]);
            }
        }
    }
    return happened;
}

}  // namespace Network
