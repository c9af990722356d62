#include <vigila/client/vigila_client.h>
#include <vigila/contract/result_tokens.h>

#include <iostream>

int main(int argc, char** argv) {
  const vigila::client::VigilaClient client;
  for (int i = 1; i < argc; ++i) {
    std::cout << argv[i] << (client.IsProtected(argv[i]) ? " protected" : " open")
              << (client.Authorize(vigila::contract::kNoToken, argv[i]) ? " granted" : " refused")
              << "\n";
  }
}
