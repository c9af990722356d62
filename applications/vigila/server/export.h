#ifndef VIGILA_SERVER_EXPORT_H_
#define VIGILA_SERVER_EXPORT_H_

// Marks what libvigila shows to those who link it; everything else stays inside.
#define VIGILA_EXPORT __attribute__((visibility("default")))

#endif  // VIGILA_SERVER_EXPORT_H_
