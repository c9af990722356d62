#ifndef VIGILA_SERVER_KEY_PROOF_H_
#define VIGILA_SERVER_KEY_PROOF_H_

namespace vigila::server {

class AtRestCipher;

// What a server's start does with the at-rest key, so that later on nothing but a wrong password
// looks like one: opens it, has the library take it, and decrypts one of the stored values with it.
// A damaged value is passed over where there is another that decrypts; it matches no password.
//
// A child process uses the key, and the 2 MiB that libcrypto loads for its first use end with it.
// So no other thread may be using libcrypto at that moment.
//
// Throws tevra::osa::Exception that names the key file when there is no such key, when its numbers
// make no key, when it is the key of none of the stored values, or when the library does not take
// it.
void OpenAndProveKey(AtRestCipher& cipher);

}  // namespace vigila::server

#endif  // VIGILA_SERVER_KEY_PROOF_H_
