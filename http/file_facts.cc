#include "http/file_facts.h"

#include <string>

namespace {

struct Facts {
  std::string path;  // empty: nothing is remembered
  struct stat status {};
};

Facts facts;

}  // namespace

void rememberFile(std::string_view path, const struct stat& status) {
  facts.path.assign(path);
  facts.status = status;
}

void forgetFile() {
  facts.path.clear();
}

const struct stat* rememberedFile(std::string_view path) {
  return !path.empty() && facts.path == path ? &facts.status : nullptr;
}
