// Front::Keys: the front's half of the key exchange and of authentication.
//
// A client opens each connection by sending its fresh SM2 public key as a
// text: two upper-case hex digits of the length of X, X, two of the length
// of Y, Y (132 characters for the 256-bit curve). The front picks a random
// 64-bit session key and answers with a text that hands it over in one of
// three forms:
//
//   "0"                       no key: the channel stays in clear
//   'A'+type, 16 hex digits   the key as 8 little-endian bytes, xored with a
//                             mask: SM3 over the client's 132 key characters
//                             gives D; the mask's high half is the CRC-32C of
//                             D[0..15] seeded with the little-endian word at
//                             D[16], its low half that of D[16..31] seeded
//                             with the word at D[0]
//   '0'+type, hex digits      the key's 8 little-endian bytes enciphered
//                             with SM2 to the client's public key, the
//                             output masked with that key's limbs
//
// Both ends then switch their channel cipher to (type, key). The answer
// also carries a random number; a client proves its AuthCode by sending
// AES-128-CBC (key: the AuthCode zero-padded to 16 bytes, zero IV, PKCS #7)
// of that number's decimal text in place of the AuthCode.
//
// Plain functions; one thread per call.
#pragma once

namespace Front {

// Makes the answer text (at most 300 characters and a zero) for client_text
// in the given form, with cipher type and key. False when the client's text
// can't be read as a public key (SM2 form) or is shorter than 132 (hash form).
bool make_key_text(int form, unsigned char type, unsigned long key, const char* client_text,
                   char* out, int out_size);

// The 64-bit mask of the hash form for a client's key text.
unsigned long hash_key_mask(const char* client_text);

// True when sent (17 bytes of the record) proves auth_code for the number
// value: either its cipher text or, from a client that couldn't encipher,
// the code in clear.
bool check_auth_code(const char* sent, const char* auth_code, int value);

// The cipher text a client sends for auth_code and value (16 bytes).
bool make_auth_code(const char* auth_code, int value, unsigned char* out16);

}  // namespace Front
