// Runs a fuzz target over every file of the folders and files given, without a fuzzer. Fails when
// there was nothing to run.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool Replay(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) return false;
  const std::string input{std::istreambuf_iterator<char>(stream), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      replayed += Replay(argv[i]) ? 1 : 0;
      continue;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (entry.is_regular_file()) replayed += Replay(entry.path()) ? 1 : 0;
    }
  }
  std::printf("%d inputs replayed\n", replayed);
  return replayed > 0 ? 0 : 1;
}
