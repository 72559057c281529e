// Cipher::Pem: readers that bring RSA keys and certificates from PEM text
// and DER to the big-endian byte strings that Cipher::Rsa takes. Nothing
// here writes PEM or DER.
//
// parse_pem() finds "-----BEGIN <label>-----\n", an optional header
// "Proc-Type: 4,ENCRYPTED\n" "DEK-Info: <cipher>,<iv hex>\n\n" with one of
// DES-EDE3-CBC, AES-128-CBC, AES-192-CBC, AES-256-CBC, then lines of 64
// Base64 characters each ended by a line feed, a last line of 1 to 64, and
// "-----END <label>-----". Encrypted bodies take the key of OpenSSL's
// traditional form (MD5 over password and the IV's first 8 bytes) and need a
// password. With a null dst only length is set, so the usual call is twice.
//
// Output buffers may be null to learn only their lengths. Integers lose one
// leading zero byte. All functions give false on any mismatch and may leave
// outputs partly written; none reads outside its input (the text must be
// terminated; DER is bounded by its length). No state is shared.
#pragma once

namespace Cipher {

class Pem {
public:
    static bool parse_pem(const char* text, const char* label, char* dst, int& length,
                          const char* password);

    // "RSA PUBLIC KEY" (PKCS #1) or else "PUBLIC KEY" (X.509
    // SubjectPublicKeyInfo). The DER form takes either structure.
    static bool parse_rsa_public_key(const char* text, char* n, int& n_length, char* e,
                                     int& e_length);
    static bool parse_rsa_public_key(const char* der, int der_length, char* n, int& n_length,
                                     char* e, int& e_length);
    // "RSA PRIVATE KEY" (PKCS #1, version 0).
    static bool parse_rsa_private_key(const char* text, char* n, int& n_length, char* d,
                                      int& d_length, const char* password);
    static bool parse_rsa_private_key(const char* der, int der_length, char* n, int& n_length,
                                      char* d, int& d_length);
    // "CERTIFICATE": validity as YYYYMMDDHHMMSS numbers, the subject's RSA
    // key, the signature algorithm's id and the content of the signature
    // bit string (its unused-bits byte first).
    static bool parse_certificate(const char* text, unsigned long& not_before,
                                  unsigned long& not_after, char* n, int& n_length, char* e,
                                  int& e_length, int& algorithm, char* signature,
                                  int& signature_length);

    // The dotted text of an object identifier's content; text holds
    // 4 * length + 8 bytes. Returns the text's length, or -1 for an empty or
    // malformed input.
    static int parse_oid(const char* der, int length, char* text);
    // 668 for sha256WithRSAEncryption, 6 for rsaEncryption, else -1.
    static int get_algorithm_id(const char* oid);
};

}  // namespace Cipher
