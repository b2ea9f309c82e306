// Tables of functions that are bound by name: a list of names and parameters makes the record and
// fills it.
#pragma once

#include <dlfcn.h>

#define KEVRA_CUDA_MEMBER(name, ...) int (*name)(__VA_ARGS__);
#define KEVRA_CUDA_BIND(name, ...)                                            \
  table.name = reinterpret_cast<decltype(table.name)>(dlsym(library, #name)); \
  if (table.name == nullptr) return #name;

// struct Table, and bind_all(library, table): null when the library has every function, else the
// first name that it lacks.
#define KEVRA_CUDA_TABLE(Table, LIST)                        \
  struct Table {                                             \
    LIST(KEVRA_CUDA_MEMBER)                                  \
  };                                                         \
  inline const char* bind_all(void* library, Table& table) { \
    LIST(KEVRA_CUDA_BIND)                                    \
    return nullptr;                                          \
  }
