#pragma once

#include <memory>
#include <utility>
#include <vector>

// Keeps an object for as long as the process lives: it is not destroyed even at the very end, when the order in which
// the rest goes away is nobody's business any more. Servers and servlets are such objects; whatever refers to them
// needs no care.
template <typename T>
T& keepForProcess(std::unique_ptr<T> object) {
  union Kept {
    Kept() : objects() {}
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() {}
    std::vector<std::unique_ptr<T>> objects;
  };
  static Kept kept;
  kept.objects.push_back(std::move(object));
  return *kept.objects.back();
}
