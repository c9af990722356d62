#ifndef VIGILA_SERVER_ACCOUNT_CHECK_H_
#define VIGILA_SERVER_ACCOUNT_CHECK_H_

namespace vigila::server {

// A server's look at the accounts before it serves: names each record in the log that is no account
// or passphrase, and keeps none of them. Malformed records are no reason not to start; what needs
// the accounts fails until they are mended.
//
// Throws tevra::osa::Exception when the settings cannot be read, and when they had an administrator
// and have none: without one the device would be open.
void CheckAccounts();

}  // namespace vigila::server

#endif  // VIGILA_SERVER_ACCOUNT_CHECK_H_
