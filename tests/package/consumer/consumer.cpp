#include <vigila/client/vigila_client.h>

#include <iostream>

int main(int argc, char** argv) {
  const vigila::client::VigilaClient client;
  for (int i = 1; i < argc; ++i) {
    std::cout << argv[i] << (client.IsProtected(argv[i]) ? " protected" : " open")
              << (client.Authorize("NO_TOKEN", argv[i]) ? " granted" : " refused") << "\n";
  }
}
