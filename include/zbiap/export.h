/* ZBIAP_EXPORT marks what libzbiap.so exports: the public classes and functions of the headers
   in zbiap/ and the zbiap_ functions of the C API. The library is compiled with hidden
   visibility, so whatever lacks the mark stays inside it. Usable from C and C++. */
#ifndef ZBIAP_EXPORT_H_
#define ZBIAP_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define ZBIAP_EXPORT __attribute__((visibility("default")))
#else
#define ZBIAP_EXPORT
#endif

#endif /* ZBIAP_EXPORT_H_ */
