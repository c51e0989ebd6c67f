#pragma once

// Makes every munmap(2) of the servlets fail with EINVAL while it lives; the program's own function stands before the C
// library's. What is not forced goes to the kernel.
class FailingUnmap {
 public:
  FailingUnmap();
  FailingUnmap(const FailingUnmap&) = delete;
  FailingUnmap& operator=(const FailingUnmap&) = delete;
  ~FailingUnmap();
};
