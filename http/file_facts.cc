#include "http/file_facts.h"

#include <string>

namespace {

struct Facts {
  std::string path;  // empty: nothing is remembered here
  struct stat status {};
  const FileAnswer* kept = nullptr;  // in place of the two
};

Facts facts;

}  // namespace

void rememberFile(std::string_view path, const struct stat& status) {
  facts.path.assign(path);
  facts.status = status;
  facts.kept = nullptr;
}

void rememberFile(const FileAnswer& kept) {
  facts.kept = &kept;
}

void forgetFile() {
  facts.path.clear();
  facts.kept = nullptr;
}

const struct stat* rememberedFile(std::string_view path) {
  if (path.empty()) return nullptr;
  if (facts.kept != nullptr) return facts.kept->path == path ? &facts.kept->status : nullptr;
  return facts.path == path ? &facts.status : nullptr;
}

FileCache::Place* rememberedPlace() {
  return facts.kept != nullptr ? &facts.kept->place : nullptr;
}
