// PELMORA_API marks what libpelmora.so exports: the classes and functions of the installed
// headers. Everything else in the library is compiled with hidden visibility, so a program or
// binding sees only the public interface.
//
//   class PELMORA_API WinSock { ... };
//   PELMORA_API std::string DescribeError(int number);
#ifndef PELMORA_PLATFORM_EXPORT_H_
#define PELMORA_PLATFORM_EXPORT_H_

#define PELMORA_API __attribute__((visibility("default")))

#endif  // PELMORA_PLATFORM_EXPORT_H_
