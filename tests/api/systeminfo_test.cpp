// Terminal information and the login token: the token opens with the
// private half of the built-in key; the machine text keeps its twelve
// fields whatever the machine's names hold; the commands never hang.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/systeminfo.h"
#include "base/datetime.h"
#include "base/random.h"
#include "cipher/base64.h"
#include "cipher/pem.h"
#include "cipher/rsa.h"
#include "cipher/sm3.h"
#include "tests/api/login_probe.h"
#include "tests/api/test_front.h"

#ifdef QEL_HAVE_OPENSSL
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#endif

using Api::LoginProbe;

namespace {

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> fields(1);
    for (char c : text) {
        if (c == '@')
            fields.emplace_back();
        else
            fields.back() += c;
    }
    return fields;
}

// The token of a trader with this crypt value and address mode, opened:
// "#<length>", a zero, then the cipher text.
std::string open_token(int crypt_value, bool front_registered, std::string* opened_by_oracle) {
    Parallel::FdReactor reactor(nullptr);
    Api::TradeApi api("./", &reactor);
    EXPECT_TRUE(!front_registered || api.RegisterFront("tcp://127.0.0.1:1") == 0);
    LoginProbe::crypt_value(api) = crypt_value;
    QelUserapiAuthenticInfoField token;
    std::memset(&token, 0x55, sizeof(token));
    if (!LoginProbe::token(api, &token)) return "no token";
    std::string text(token.EncryptUserApiInfo);
    EXPECT_LE(text.size(), 300u);
    std::vector<char> frame(text.size());
    int length = 0;
    EXPECT_TRUE(Cipher::Base64::decode(frame.data(), length, text.data(), static_cast<int>(text.size())));
    EXPECT_EQ(std::string(frame.data(), 5), std::string("#128\0", 5));
    if (length != 5 + 128) return "frame of " + std::to_string(length) + " bytes";
    std::string pem = test_front::read_file(std::string(QEL_SOURCE_DIR) + "/tests/api/data/userapi_test_key.pem");
    int n_length = 0, d_length = 0;
    EXPECT_TRUE(Cipher::Pem::parse_rsa_private_key(pem.c_str(), nullptr, n_length, nullptr, d_length, nullptr));
    std::vector<char> n(static_cast<size_t>(n_length)), d(static_cast<size_t>(d_length));
    EXPECT_TRUE(Cipher::Pem::parse_rsa_private_key(pem.c_str(), n.data(), n_length, d.data(), d_length, nullptr));
    Cipher::Rsa rsa;
    rsa.set_keys(n.data(), n_length, nullptr, 0, d.data(), d_length);
    char plain[128];
    int plain_length = 0;
    EXPECT_TRUE(rsa.decode_oaep(plain, plain_length, frame.data() + 5, 128));
#ifdef QEL_HAVE_OPENSSL
    opened_by_oracle->clear();
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
    unsigned char out[128];
    size_t out_length = sizeof(out);
    if (EVP_PKEY_decrypt_init(context) == 1 && EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) == 1 &&
        EVP_PKEY_decrypt(context, out, &out_length, reinterpret_cast<const unsigned char*>(frame.data() + 5), 128) == 1)
        *opened_by_oracle = std::string(reinterpret_cast<char*>(out), out_length);
    EVP_PKEY_CTX_free(context);
    EVP_PKEY_free(key);
    BIO_free(bio);
#else
    (void)opened_by_oracle;
#endif
    return std::string(plain, plain_length > 0 ? static_cast<size_t>(plain_length) : 0);
}

TEST(LoginToken, OpensWithThePrivateKeyToTheCryptValueAndAddressMode) {
    const struct { int crypt; bool front; const char* plain; } cases[] = {{25081826, false, "250818261"},
                                                                         {-7, true, "-70"}};
    for (const auto& c : cases) {
        std::string oracle = c.plain;  // stays so without an oracle
        EXPECT_EQ(open_token(c.crypt, c.front, &oracle), c.plain);
        EXPECT_EQ(oracle, c.plain);
    }
}

TEST(SystemInfo, TransStrEscapesSeparatorsThenCuts) {
    char text[16];
    std::memset(text, 'x', sizeof(text));
    std::memcpy(text, "abcdefg", 8);
    Api::trans_str(text, 7, 5);
    // Zero-filled through limit + 1 bytes and not beyond.
    EXPECT_EQ(std::string(text, 9), std::string("abcde\0g\0x", 9));
    std::memcpy(text, "a@b@", 5);
    Api::trans_str(text, 4, 15);
    EXPECT_STREQ(text, "a&atb&at");
    std::memcpy(text, "@@@@", 5);
    Api::trans_str(text, 4, 9);
    EXPECT_STREQ(text, "&at&at&at");  // cut after the escape, never inside the text given
    Api::trans_str(nullptr, 4, 9);     // does nothing
}

Api::SystemFacts plain_facts() {
    Api::SystemFacts facts = {};
    std::strcpy(facts.date_time, "2025-01-02 09:30:05");
    return facts;
}

TEST(SystemInfo, TheTextHasTwelveFieldsOnAnyMachine) {
    // A machine with nothing to tell: five separators follow the time.
    Api::SystemFacts facts = plain_facts();
    char out[301];
    Api::format_system_info(&facts, out);
    EXPECT_STREQ(out, "0@2@2025-01-02 09:30:05@@@@@@@@@");

    // Odd names: separators inside them are escaped, lengths kept.
    facts = plain_facts();
    Api::set_host_facts("a@b@c@d@e@f", "6@1.0-13-amd64", &facts);
    EXPECT_EQ(std::string(facts.host) + "|" + facts.release, "a&atb&atc|6&at1");
    Api::set_host_facts(std::string(300, 'h').c_str(), "", &facts);
    EXPECT_EQ(std::string(facts.host) + "|" + facts.release, "hhhhhhhhh|");
    Api::set_host_facts("@@@@@@@@@@@@", "@@@@@@", &facts);
    Api::parse_disk_serial(" @@@@@@@@@@@@@@@@@@@@ \n", facts.disk);
    Api::parse_processor_id("ID: @@@@@@@@@@@@@@@@@@@@\n", facts.processor);
    Api::parse_system_serial("Serial Number: @@@@@@@@@@@@@@\n", facts.serial);
    std::strcpy(facts.address[0], "255.255.255.255");
    std::strcpy(facts.address[1], "10.0.0.1");
    std::strcpy(facts.mac[0], "ffffffffffff");
    std::strcpy(facts.mac[1], "0a0b0c0d0e0f");
    std::memset(out, 0x7f, sizeof(out));
    Api::format_system_info(&facts, out);
    const std::string text(out);
    EXPECT_EQ(text, "0@2@2025-01-02 09:30:05@255.255.255.255@10.0.0.1@ffffffffffff@0a0b0c0d0e0f@&at&at&at@&at&a@"
                    "&at&at&at&at&at&@&at&at&at&at&at&@&at&at&at&");
    EXPECT_EQ(std::string(out + text.size(), 301 - text.size()), std::string(301 - text.size(), '\0'));
}

TEST(SystemInfo, CommandOutputsGiveTheirFields) {
    // Disk and processor fields hold 17 bytes, the serial 11.
    const struct { void (*parse)(const char*, char*); const char* output; const char* field; } cases[] = {
        {Api::parse_disk_serial, "  S3Z9NB0K123456A  \nsecond line\n", "S3Z9NB0K123456A"},
        {Api::parse_disk_serial, "WD-0123456789ABCDEFGH\r\n", "WD-0123456789ABC"},
        {Api::parse_disk_serial, "", ""},
        {Api::parse_processor_id, "\tID: 57 06 05 00 FF FB EB BF\n", "57060500FFFBEBBF"},
        {Api::parse_processor_id, "\tID: A1 B2\r\nID: 99\n", "A1B2"},
        {Api::parse_processor_id, "no identifier here\n", ""},
        {Api::parse_system_serial, "\tSerial Number: VMware-56 4d 1e\n", "VMware-56"},
        {Api::parse_system_serial, "Serial Number: 0123456789ABCDEF\n", "0123456789"},
        {Api::parse_system_serial, "Serial Number:", ""},
        {Api::parse_system_serial, "# dmidecode 3.4\n", ""},
    };
    for (const auto& c : cases) {
        std::vector<char> field(c.parse == Api::parse_system_serial ? 11 : 17, 'x');
        c.parse(c.output, field.data());
        EXPECT_EQ(std::string(field.data(), strnlen(field.data(), field.size())), c.field) << c.output;
    }
}

TEST(SystemInfo, TheWalkKeepsTheLastTwoUsableInterfaces) {
    Api::InterfaceFacts list[16];
    std::memset(list, 0, sizeof(list));
    auto set = [&](int i, bool ok, const char* address, const char* mac) {
        list[i].ok = ok;
        std::strcpy(list[i].address, address);
        std::strcpy(list[i].mac, mac);
    };
    set(0, true, "192.168.1.2", "aabbccddeeff");
    set(1, true, "10.1.1.1", "001122334455");
    set(2, false, "", "");  // a failed query ends the walk here
    set(3, true, "172.16.0.9", "0a0a0a0a0a0a");
    set(4, true, "127.0.0.1", "000000000001");
    set(5, true, "10.9.9.9", "000000000000");
    set(6, true, "0.0.0.0", "0b0b0b0b0b0b");
    // The two chosen, as "address mac address mac".
    auto chosen = [&](int count) {
        Api::SystemFacts facts = plain_facts();
        Api::choose_interfaces(list, count, &facts);
        return std::string(facts.address[0]) + " " + facts.mac[0] + " " + facts.address[1] + " " + facts.mac[1];
    };
    EXPECT_EQ(chosen(7), "172.16.0.9 0a0a0a0a0a0a  ");  // the walk ended before a second
    EXPECT_EQ(chosen(2), "10.1.1.1 001122334455 192.168.1.2 aabbccddeeff");
    EXPECT_EQ(chosen(0), "   ");
    for (int i = 0; i < 16; ++i) set(i, true, "10.0.0.1", "0c0c0c0c0c0c");
    EXPECT_EQ(chosen(16), "10.0.0.1 0c0c0c0c0c0c 10.0.0.1 0c0c0c0c0c0c");
}

TEST(SystemInfo, CommandsThatFailOrHangLeaveTheFieldEmpty) {
    char out[1025];
    ASSERT_TRUE(Api::run_command("echo one; echo two", out, 5000));
    EXPECT_STREQ(out, "one\ntwo\n");
    ASSERT_TRUE(Api::run_command("qel_no_such_command --serial", out, 5000));
    EXPECT_STREQ(out, "");
    // A command that never ends is killed with its whole pipeline.
    ASSERT_TRUE(Api::run_command("echo early; sleep 30 | cat", out, 200));
    EXPECT_STREQ(out, "early\n");
    // An endless output is read to its bound and no further.
    ASSERT_TRUE(Api::run_command("yes 0123456789", out, 5000));
    EXPECT_GE(std::strlen(out), 513u);
    EXPECT_LE(std::strlen(out), 1024u);
}

TEST(SystemInfo, ThisMachineGivesAWholeText) {
    char out[301];
    std::memset(out, 0x7f, sizeof(out));
    EXPECT_EQ(Api::get_system_info(out), 0);
    std::string text(out);
    EXPECT_LE(text.size(), 300u);
    EXPECT_EQ(split(text).size(), 12u) << text;
    EXPECT_EQ(text.substr(0, 4), "0@2@");
    EXPECT_EQ(text[14], ' ');  // "YYYY-MM-DD hh:mm:ss"
}

TEST(SystemInfo, TheApiBlockGivesBackItsSecondAndUser) {
    char block[40] = {};
    long before = 0, after = 0;
    int ms = 0;
    Base::DateTime::get_now(before, ms);
    Api::get_api_info(block, 34, "user@desk");
    Base::DateTime::get_now(after, ms);
    const unsigned char* b = reinterpret_cast<const unsigned char*>(block);
    uint32_t hidden = uint32_t(b[7]) << 24 | uint32_t(b[8]) << 16 | uint32_t(b[9]) << 8 | b[10];
    uint32_t mix = uint32_t(b[5]) << 24 | uint32_t(b[6]) << 16 | uint32_t(b[32]) << 8 | b[33];
    long seconds = static_cast<long>(hidden ^ mix);
    ASSERT_GE(seconds, before);
    ASSERT_LE(seconds, after);
    // The filler is the generator of that second, so a receiver can check it.
    Base::Random random(static_cast<unsigned int>(seconds));
    for (int i = 0; i < 34; ++i) {
        const unsigned char expected = static_cast<unsigned char>(random.next() & 0xFF);
        EXPECT_TRUE((i >= 7 && i < 27) || b[i] == expected) << i;
    }
    Cipher::Sm3 sm3;
    sm3.update(block, 7);
    std::string text = std::to_string(seconds) + " user@desk";
    sm3.update(text.data(), static_cast<int>(text.size()));
    sm3.update(block + 27, 7);
    sm3.final();
    std::string digest(16, 0);
    for (int i = 0; i < 16; ++i) digest[i] = static_cast<char>(sm3.digest()[2 * i]);
    EXPECT_EQ(std::string(block + 11, 16), digest);
    EXPECT_EQ(std::string(block + 34, 6), std::string(6, '\0'));
}

}  // namespace
