// Terminal information: the machine data that a login carries, gathered once
// at Init on the application thread, and the pieces it is made of.
//
// get_system_info (tradeapi.h) = gather_system_facts + format_system_info.
// The facts are split from their gathering so that any machine, odd ones
// included, can be described to the formatter: the text is twelve fields
// joined by '@', each field already passed through trans_str, so that no
// field can add a separator; the whole is cut to 300 characters.
//
// The machine commands run under /bin/sh in their own process group with
// no input and no error output; a command that is missing, fails or runs
// past its time leaves its field empty, and one that runs too long is
// killed, so gathering never hangs.
#pragma once

namespace Api {

struct SystemFacts {
    char date_time[32];   // "YYYY-MM-DD hh:mm:ss"
    char address[2][40];  // dotted IPv4, at most 39
    char mac[2][13];      // 12 lower-case hex digits
    char host[10];        // uname nodename, at most 9
    char release[6];      // uname release, at most 5
    char disk[17];        // disk serial, at most 16
    char processor[17];   // processor id, at most 16
    char serial[11];      // system serial, at most 10
};

// One interface as the interface walk sees it; `ok` false where one of its
// queries failed, which ends the walk.
struct InterfaceFacts {
    bool ok;
    char address[40];
    char mac[13];
};

// Walks list from last to first and keeps the first two interfaces that
// count (address neither "0.0.0.0" nor "127.0.0.1", MAC not all zero).
void choose_interfaces(const InterfaceFacts* list, int count, SystemFacts* facts);

// The fields of the three machine commands from their raw output.
void parse_disk_serial(const char* output, char* out);      // 17 bytes
void parse_processor_id(const char* output, char* out);     // 17 bytes
void parse_system_serial(const char* output, char* out);    // 11 bytes

// Host name and release, cut and escaped.
void set_host_facts(const char* host, const char* release, SystemFacts* facts);

// Runs command under /bin/sh; out (at least 1025 bytes) takes what it
// printed, at most until 513 characters are held. False, and out empty,
// when it can't be started; on time-out the command is killed and out
// keeps what came before.
bool run_command(const char* command, char* out, int timeout_ms);

// Gathers the facts of this machine: clock, interfaces, uname, commands.
void gather_system_facts(SystemFacts* facts, int command_timeout_ms);

// The '@'-joined text of facts into out (at least 301 bytes, zero-filled).
void format_system_info(const SystemFacts* facts, char* out);

}  // namespace Api
