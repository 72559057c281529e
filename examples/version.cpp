// Smallest application: prints the library's version, creates a trader,
// registers a callback object and a front, and releases it without starting
// it, so it needs no network. Exits 0 when every call answered as expected.
#include <cstdio>

#include "QelcTraderApi.h"

namespace {

class VersionSpi : public CTulmQelcTraderSpi {
public:
    void OnFrontConnected() override { std::printf("front connected\n"); }
};

}  // namespace

int main() {
    int main_version = 0;
    int build = 0;
    const char* banner = CTulmQelcTraderApi::GetVersion(main_version, build);
    std::printf("%s\nmain %d build %d\n", banner, main_version, build);

    CTulmQelcTraderApi* api = CTulmQelcTraderApi::CreateQelcTraderApi("./");
    VersionSpi spi;
    api->RegisterSpi(&spi);
    int front = api->RegisterFront("tcp://127.0.0.1:17001");
    // Release answers -9 before Init; Join frees a trader that never started.
    int release = api->Release();
    int join = api->Join();
    std::printf("RegisterFront -> %d\nRelease -> %d\nJoin -> %d\n", front, release, join);
    return front == 0 && release == -9 && join == 0 ? 0 : 1;
}
