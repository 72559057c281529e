# An application compiles against the public headers alone: copy them to an
# empty directory and compile a translation unit that uses both classes.
set(dir ${BINARY_DIR}/public_header_check)
file(REMOVE_RECURSE ${dir})
file(MAKE_DIRECTORY ${dir})
file(COPY ${SOURCE_DIR}/api/QelcTraderApi.h ${SOURCE_DIR}/api/QelcTraderApiStruct.h DESTINATION ${dir})
file(WRITE ${dir}/app.cpp "
#include \"QelcTraderApi.h\"
class Spi : public CTulmQelcTraderSpi {
public:
    void OnFrontConnected() override {}
};
int main() {
    int main_version = 0, build = 0;
    CTulmQelcTraderApi::GetVersion(main_version, build);
    CTulmQelcTraderApi* api = CTulmQelcTraderApi::CreateQelcTraderApi(\"./\");
    Spi spi;
    api->RegisterSpi(&spi);
    return api->RegisterFront(\"tcp://127.0.0.1:17001\");
}
")
execute_process(COMMAND c++ -std=c++17 -Wall -Wextra -Werror -pedantic -fsyntax-only -I${dir} ${dir}/app.cpp
  RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "public headers do not compile alone:\n${errors}")
endif()
