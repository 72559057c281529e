// Base::Uri: a front or name-server address such as "tcp://127.0.0.1:17001",
// cut into protocol, host, port and path. The parts point into a private
// copy of the text; a missing part is null (port 0). Texts longer than 127
// characters are cut.
#pragma once

namespace Base {

class Uri {
public:
    Uri();
    explicit Uri(const char* text);

    void parse(const char* text);

    const char* get_text() const { return text; }
    const char* get_protocol() const { return protocol; }
    const char* get_host() const { return host; }
    int get_port() const { return port; }
    const char* get_path() const { return path; }

private:
    void reset();

    char text[128];
    char parts[128];
    char* protocol;
    char* host;
    int port;
    char* path;
};

}  // namespace Base
