/* Logs a user in and asks whether a path may be reached; asks again for every further line of
 * input, also while the service is stopped or started again.
 *
 * cc c_client.c $(pkg-config --cflags --libs vigila) -o c_client
 *
 * echo PASSWORD | ./c_client USER PATH */
#include <stdio.h>
#include <string.h>
#include <vigila/client/vigila.h>

int main(int argc, char** argv) {
  char password[256], line[16], token[VIGILA_TOKEN_SIZE] = "NO_TOKEN";
  vigila_client* client;
  int granted = 0;
  if (argc != 3 || fgets(password, sizeof password, stdin) == NULL) return 2;
  password[strcspn(password, "\n")] = '\0';
  client = vigila_open();
  do {
    if (!vigila_is_authenticated(client, token))
      vigila_authenticate(client, argv[1], strlen(argv[1]), password, strlen(password), "cache",
                          token);
    granted = vigila_authorize(client, token, argv[2]);
    printf("%s may %sreach %s\n", argv[1], granted ? "" : "not ", argv[2]);
    fflush(stdout);
  } while (fgets(line, sizeof line, stdin) != NULL);
  vigila_close(client);
  return granted ? 0 : 1;
}
