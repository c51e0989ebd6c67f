#pragma once

#include <string_view>
#include <sys/stat.h>

#include "http/file_answers.h"

// What stat(2) said of the file that the running servlet answers with, so that the response writer need not open the
// file to know it again. One file is remembered, until the connection engine forgets it before the next servlet runs:
// what is remembered is never older than the request it is used for.

void rememberFile(std::string_view path, const struct stat& status);
// As above, but nothing is copied: a kept answer, which is forgotten before it goes.
void rememberFile(const FileAnswer& kept);
void forgetFile();

// Null: nothing is remembered of that path.
[[nodiscard]] const struct stat* rememberedFile(std::string_view path);
// Its place in the cache of files, when it is a kept answer; else null.
[[nodiscard]] FileCache::Place* rememberedPlace();
