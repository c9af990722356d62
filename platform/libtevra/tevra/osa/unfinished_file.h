#ifndef TEVRA_OSA_UNFINISHED_FILE_H_
#define TEVRA_OSA_UNFINISHED_FILE_H_

#include <span>
#include <string>

#include "tevra/osa/descriptor.h"

namespace tevra::osa {

// A file that is filled under a name of its own, beside the one it is to have, and takes that one
// when it is whole: a process that is killed meanwhile leaves remains that nothing reads. The name
// is the final one with ".unfinished-" and six characters; mode 0600. Failures throw
// std::system_error.
class UnfinishedFile final {
 public:
  // Endings of files that a library makes beside it; borrowed.
  using Companions = std::span<const char* const>;

  // Locks the file, so that RemoveRemains of another process leaves it alone.
  explicit UnfinishedFile(const std::string& path, Companions companions = {});
  // Removes the file, unless it was moved, and its companions.
  ~UnfinishedFile();
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  const std::string& Name() const { return name_; }
  int get() const { return file_.get(); }

  // The file must be on the disk before either; its new name is when the call returns.
  // False when a file of the final name has come to be; nothing is moved then. File systems that
  // cannot promise that get a plain rename.
  bool MoveIntoPlace();
  void Replace();

  // Removes what processes left that were killed before they moved their file to `path`.
  static void RemoveRemains(const std::string& path, Companions companions = {});
  // With the slash behind it; "." for a bare name.
  static std::string DirectoryOf(const std::string& path);
  // Makes renames and removals beside `path` durable.
  static void FlushDirectoryOf(const std::string& path);

 private:
  // False when another process took the file for remains before it was locked.
  bool Make();

  const std::string path_;
  const Companions companions_;
  std::string name_;
  // Holds the lock. Closed when a library is done with the file: whoever closes any descriptor of
  // an SQLite file gives up the locks that SQLite has on it.
  Descriptor file_;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_UNFINISHED_FILE_H_
