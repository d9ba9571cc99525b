// A program outside the tree that uses the installed library.
#include <iostream>

#include "pelmora/common/error_texts.h"

int main() {
  std::cout << pelmora::DescribeError(10061) << '\n';
  return pelmora::DescribeError(10061).empty() ? 1 : 0;
}
