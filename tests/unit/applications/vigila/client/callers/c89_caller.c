#include "vigila/client/vigila.h"
#include "vigila/client/vigila_xml_c.h"

int c89_logon(char* token, char* nonce);

/* A whole visit by a caller of the oldest kind; counts the answers that were 1. */
int c89_logon(char* token, char* nonce) {
  int answers = 0;
  vigila_client* client = vigila_open();
  answers += vigila_is_protected(client, "/path");
  answers += vigila_get_nonce(client, nonce);
  answers += vigila_authenticate(client, "alice", 5, "secret", 6, "", token);
  answers += vigila_authorize(client, token, "/path");
  answers += vigila_try_authorize(client, token, "/path") != VIGILA_WOULD_HAVE_TO_ASK;
  answers += vigila_try_is_protected(client, "/path") != VIGILA_WOULD_HAVE_TO_ASK;
  answers += vigila_is_authenticated(client, token);
  vigila_close(client);
  return answers;
}
