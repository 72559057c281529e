// Terminal information and the login token: what the library tells the
// exchange about the machine it runs on, made once at Init, the block of
// binary data behind the protocol text of a login, and the token
// enciphered under the built-in public key.
#include "api/systeminfo.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "api/tradeapi.h"
#include "base/datetime.h"
#include "base/measure.h"
#include "base/print.h"
#include "base/random.h"
#include "base/strings.h"
#include "cipher/base64.h"
#include "cipher/pem.h"
#include "cipher/rsa.h"
#include "cipher/sm3.h"
#include "record/gen/qelfield.h"

extern char** environ;

namespace Api {

// The PEM text of the public key, generated at build time from
// api/userapi_key.pem (a 1024-bit key, 272 characters). The key checked in
// is a stand-in that the tests can decipher; the exchange's key replaces it.
extern const char g_userapi_public_key[];

namespace {

const int COMMAND_TIMEOUT_MS = 2000;
const int COMMAND_OUTPUT_WANTED = 513;  // read until this much is held
const int COMMAND_OUTPUT_SIZE = 1025;

const char* const DISK_COMMAND = "lsblk --nodeps -no serial | head -1";
const char* const PROCESSOR_COMMAND = "dmidecode -t 4 | grep ID | head -1";
const char* const SERIAL_COMMAND = "dmidecode -t 1 | grep \"Serial Number\"";

// Copies at most limit characters of text and ends them with a zero.
void copy_cut(char* out, const char* text, int limit) {
    int i = 0;
    for (; i < limit && text[i] != 0; ++i) out[i] = text[i];
    out[i] = 0;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

uint64_t now_ms() { return Base::Measure::get_clock() / 10000; }

}  // namespace

void trans_str(char* text, int length, int limit) {
    if (text == nullptr || length < 0 || limit < 0) return;
    char* escaped = new char[3 * length + 1];
    int n = 0;
    for (int i = 0; i < length && text[i] != 0; ++i) {
        if (text[i] == '@') {
            escaped[n++] = '&';
            escaped[n++] = 'a';
            escaped[n++] = 't';
        } else {
            escaped[n++] = text[i];
        }
    }
    escaped[n] = 0;
    int i = 0;
    for (; i < limit && escaped[i] != 0; ++i) text[i] = escaped[i];
    for (; i <= limit; ++i) text[i] = 0;
    delete[] escaped;
}

void choose_interfaces(const InterfaceFacts* list, int count, SystemFacts* facts) {
    int found = 0;
    for (int i = count - 1; i >= 0 && found < 2; --i) {
        const InterfaceFacts& item = list[i];
        if (!item.ok) break;
        if (std::strcmp(item.address, "0.0.0.0") == 0 || std::strcmp(item.address, "127.0.0.1") == 0 ||
            std::strcmp(item.mac, "000000000000") == 0)
            continue;
        copy_cut(facts->address[found], item.address, 39);
        copy_cut(facts->mac[found], item.mac, 12);
        ++found;
    }
}

void parse_disk_serial(const char* output, char* out) {
    char line[COMMAND_OUTPUT_SIZE];
    int n = 0;
    while (n < COMMAND_OUTPUT_SIZE - 1 && output[n] != 0 && output[n] != '\r' && output[n] != '\n') {
        line[n] = output[n];
        ++n;
    }
    line[n] = 0;
    while (n > 0 && is_blank(line[n - 1])) line[--n] = 0;
    const char* start = line;
    while (is_blank(*start)) ++start;
    copy_cut(out, start, 16);
    trans_str(out, static_cast<int>(std::strlen(out)), 16);
}

void parse_processor_id(const char* output, char* out) {
    out[0] = 0;
    const char* found = std::strstr(output, "ID:");
    if (found != nullptr) {
        int n = 0;
        for (const char* c = found + 3; n < 16 && *c != 0 && *c != '\r' && *c != '\n'; ++c)
            if (!is_blank(*c)) out[n++] = *c;
        out[n] = 0;
    }
    trans_str(out, static_cast<int>(std::strlen(out)), 16);
}

void parse_system_serial(const char* output, char* out) {
    out[0] = 0;
    static const char label[] = "Serial Number:";
    const char* found = std::strstr(output, label);
    if (found != nullptr) {
        const char* c = found + sizeof(label) - 1;
        if (*c != 0) ++c;  // the blank behind the label
        int n = 0;
        for (; n < 10 && *c != 0 && *c != ' ' && *c != '\r' && *c != '\n'; ++c) out[n++] = *c;
        out[n] = 0;
    }
    trans_str(out, static_cast<int>(std::strlen(out)), 10);
}

void set_host_facts(const char* host, const char* release, SystemFacts* facts) {
    copy_cut(facts->host, host, 9);
    trans_str(facts->host, static_cast<int>(std::strlen(facts->host)), 9);
    copy_cut(facts->release, release, 5);
    trans_str(facts->release, static_cast<int>(std::strlen(facts->release)), 5);
}

// Reaps the command, killing its whole process group once the deadline has
// passed or when the caller stopped reading before its end.
static void finish_command(pid_t pid, uint64_t deadline, bool kill_now) {
    int status = 0;
    while (!kill_now) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) return;
        if (now_ms() >= deadline) break;
        usleep(1000);
    }
    kill(-pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

bool run_command(const char* command, char* out, int timeout_ms) {
    out[0] = 0;
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_init(&attributes);
    // Its own process group, so that a time-out kills the whole pipeline;
    // no blocked signals and the default SIGPIPE, whatever the caller set.
    sigset_t none, pipe_signal;
    sigemptyset(&none);
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &pipe_signal);
    pid_t pid = 0;
    char shell[] = "/bin/sh";
    char flag[] = "-c";
    char* argv[] = {shell, flag, const_cast<char*>(command), nullptr};
    int spawned = posix_spawn(&pid, shell, &actions, &attributes, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(pipe_fds[1]);
    if (spawned != 0) {
        close(pipe_fds[0]);
        return false;
    }
    uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms);
    int held = 0;
    bool ended = false;
    while (held < COMMAND_OUTPUT_WANTED) {
        uint64_t now = now_ms();
        if (now >= deadline) break;
        pollfd item = {pipe_fds[0], POLLIN, 0};
        int ready = poll(&item, 1, static_cast<int>(deadline - now));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        ssize_t got = read(pipe_fds[0], out + held, static_cast<size_t>(COMMAND_OUTPUT_SIZE - 1 - held));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            ended = true;
            break;
        }
        held += static_cast<int>(got);
    }
    out[held] = 0;
    close(pipe_fds[0]);
    finish_command(pid, deadline, !ended);
    return true;
}

// The command's output, or an empty text when it can't be started.
static void command_output(const char* command, char* out, int timeout_ms) {
    if (!run_command(command, out, timeout_ms)) PRINT("popen %s error\n", command);
}

// The interfaces that carry an IPv4 address, queried one by one.
static void gather_interfaces(SystemFacts* facts) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        std::perror("socket");
        return;
    }
    ifreq requests[16];
    std::memset(requests, 0, sizeof(requests));
    ifconf config;
    config.ifc_len = sizeof(requests);
    config.ifc_req = requests;
    if (ioctl(fd, SIOCGIFCONF, &config) == 0) {
        int count = config.ifc_len / static_cast<int>(sizeof(ifreq));
        InterfaceFacts list[16];
        std::memset(list, 0, sizeof(list));
        for (int i = 0; i < count; ++i) {
            ifreq request;
            std::memset(&request, 0, sizeof(request));
            std::memcpy(request.ifr_name, requests[i].ifr_name, IFNAMSIZ);
            if (ioctl(fd, SIOCGIFFLAGS, &request) != 0 || ioctl(fd, SIOCGIFHWADDR, &request) != 0) continue;
            const unsigned char* hw = reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
            std::snprintf(list[i].mac, sizeof(list[i].mac), "%02x%02x%02x%02x%02x%02x", hw[0], hw[1], hw[2], hw[3],
                          hw[4], hw[5]);
            if (ioctl(fd, SIOCGIFADDR, &request) != 0) continue;
            const sockaddr_in* address = reinterpret_cast<const sockaddr_in*>(&request.ifr_addr);
            if (inet_ntop(AF_INET, &address->sin_addr, list[i].address, sizeof(list[i].address)) == nullptr) continue;
            list[i].ok = true;
        }
        choose_interfaces(list, count, facts);
    }
    close(fd);
}

void gather_system_facts(SystemFacts* facts, int command_timeout_ms) {
    std::memset(facts, 0, sizeof(*facts));
    Base::Date date;
    Base::Time time;
    date.get_now();
    time.get_now();
    std::snprintf(facts->date_time, sizeof(facts->date_time), "%d-%02d-%02d %02d:%02d:%02d", date.get_year() % 10000,
                  date.get_month() % 100, date.get_day() % 100, time.get_hour() % 100, time.get_minute() % 100,
                  time.get_second() % 100);
    gather_interfaces(facts);
    utsname names;
    if (uname(&names) == 0) set_host_facts(names.nodename, names.release, facts);
    char output[COMMAND_OUTPUT_SIZE];
    command_output(DISK_COMMAND, output, command_timeout_ms);
    parse_disk_serial(output, facts->disk);
    command_output(PROCESSOR_COMMAND, output, command_timeout_ms);
    parse_processor_id(output, facts->processor);
    command_output(SERIAL_COMMAND, output, command_timeout_ms);
    parse_system_serial(output, facts->serial);
}

void format_system_info(const SystemFacts* facts, char* out) {
    std::memset(out, 0, 301);
    Base::str_print(301, out, "0@2@%s@%s@%s@%s@%s@%s@%s@%s@%s@%s", facts->date_time, facts->address[0],
                    facts->address[1], facts->mac[0], facts->mac[1], facts->host, facts->release, facts->disk,
                    facts->processor, facts->serial);
}

int get_system_info(char* out) {
    SystemFacts facts;
    gather_system_facts(&facts, COMMAND_TIMEOUT_MS);
    format_system_info(&facts, out);
    return 0;
}

void get_api_info(char* out, int length, const char* user_id) {
    long seconds = 0;
    int milliseconds = 0;
    Base::DateTime::get_now(seconds, milliseconds);
    Base::Random random(static_cast<unsigned int>(seconds));
    for (int i = 0; i < length; ++i) out[i] = static_cast<char>(random.next() & 0xFF);
    if (length < 34) return;  // the block below needs all 34 bytes
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(out);
    uint32_t mixed = (uint32_t(bytes[5]) << 24 | uint32_t(bytes[6]) << 16 | uint32_t(bytes[32]) << 8 | bytes[33]) ^
                     static_cast<uint32_t>(seconds);
    out[7] = static_cast<char>(mixed >> 24);
    out[8] = static_cast<char>(mixed >> 16);
    out[9] = static_cast<char>(mixed >> 8);
    out[10] = static_cast<char>(mixed);
    char text[64];
    int text_length = std::snprintf(text, sizeof(text), "%u %s", static_cast<unsigned int>(seconds), user_id);
    if (text_length >= static_cast<int>(sizeof(text))) text_length = sizeof(text) - 1;
    Cipher::Sm3 sm3;
    sm3.update(out, 7);
    sm3.update(text, text_length);
    sm3.update(out + 27, 7);
    sm3.final();
    for (int i = 0; i < 16; ++i) out[11 + i] = static_cast<char>(sm3.digest()[2 * i]);
}

bool TradeApi::encrypt_user_api_info(QelUserapiAuthenticInfoField* out) {
    int n_length = 0, e_length = 0;
    if (!Cipher::Pem::parse_rsa_public_key(g_userapi_public_key, nullptr, n_length, nullptr, e_length)) return false;
    char* n = new char[n_length];
    char* e = new char[e_length];
    bool parsed = Cipher::Pem::parse_rsa_public_key(g_userapi_public_key, n, n_length, e, e_length);
    Cipher::Rsa rsa;
    if (parsed) rsa.set_keys(n, n_length, e, e_length, nullptr, 0);
    delete[] n;
    delete[] e;
    if (!parsed) return false;

    char frame[301];
    std::memset(frame, 0, sizeof(frame));
    int plain_length = std::snprintf(frame, sizeof(frame), "%d%c", init_crypt_value, address_mode);
    char cipher[301];
    std::memset(cipher, 0, sizeof(cipher));
    int cipher_length = 0;
    // The length alone first: a key too large for the buffer gives no token.
    if (!rsa.encode_oaep(nullptr, cipher_length, frame, plain_length) || cipher_length < 1 ||
        cipher_length > static_cast<int>(sizeof(cipher)))
        return false;
    if (!rsa.encode_oaep(cipher, cipher_length, frame, plain_length) || cipher_length < 1) return false;

    // "#<length>", its zero, then the cipher bytes; all of it in Base64.
    std::memset(frame, 0, sizeof(frame));
    int head = std::snprintf(frame, sizeof(frame), "#%d", cipher_length) + 1;
    if (head + cipher_length > static_cast<int>(sizeof(frame))) return false;
    std::memcpy(frame + head, cipher, static_cast<size_t>(cipher_length));
    int text_length = 0;
    Cipher::Base64::encode(nullptr, text_length, frame, head + cipher_length);
    char* text = new char[text_length + 1];
    Cipher::Base64::encode(text, text_length, frame, head + cipher_length);
    text[text_length] = 0;
    copy_cut(out->EncryptUserApiInfo, text, 300);
    delete[] text;
    return true;
}

}  // namespace Api
