// Collects the body of one kernel: statements, fresh names, and the complex arithmetic of the FFT,
// where each operation writes one statement and hands back the name of its result.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/format.h"

namespace kevra::codegen {

// A table of the `size` roots exp(-2 pi i k / size). `name` can stand in front of "[".
struct TwiddleTable {
  int size;
  std::string name;
};

struct KernelWriter {
  KernelWriter(int compute_prec, const Backend& dialect) : prec(compute_prec), backend(dialect) {}

  std::string str() const { return text.str(); }

  // All prefixes share one counter, so no two names of a kernel share a number. A result gets a
  // name of its own and keeps it: bodies are in single assignment form.
  std::string fresh(const std::string& prefix) { return prefix + std::to_string(next_id++); }

  void line(const std::string& s) { text << s << '\n'; }
  void raw(const std::string& s) { text << s; }
  // The ordinary way of writing a statement: fills the `$` of `fmt` with texts and integers.
  template <class... Args>
  void stmt(const char* fmt, const Args&... args) {
    text << "  " << format(fmt, {piece(args)...}) << '\n';
  }
  void barrier() { stmt("$", backend.barrier_call()); }
  void for_loop(const std::string& var, const std::string& first, const std::string& limit,
                const std::string& step, const std::function<void(const std::string&)>& body);
  void if_block(const std::string& cond, const std::function<void()>& body);

  // Complex values are names of `cplx` variables, or any text that can stand as such an argument.
  std::string complex_value(const std::string& re, const std::string& im);
  std::string complex_load(const std::string& base, const std::string& index);
  std::string cadd(const std::string& a, const std::string& b);
  std::string csub(const std::string& a, const std::string& b);
  std::string cmul(const std::string& a, const std::string& b);
  std::string complex_constant(double re, double im);
  // exp(-2 pi i k / n), or its conjugate, as a literal.
  std::string root_constant(int k, int n, bool conjugate);
  std::string scale_real(const std::string& a, double c);
  std::string multiply_constant(const std::string& a, double re, double im);

  // exp(-2 pi i index / order), or its conjugate: read from the shared array `twsh`, from a
  // registered table, or computed in place, in this order of preference.
  std::string twiddle(const std::string& index, int order, bool from_shared, bool conjugate);
  // Entries of the first table divisible by `order` that make one step of it; 0 without one.
  int table_stride(int order) const;

  // The double forms have no dialect spelling of their own.
  std::string log_of(const std::string& x) const;
  std::string exp_of(const std::string& x) const;
  std::string pow_of(const std::string& a, const std::string& b) const;
  std::string sqrt_of(const std::string& x) const;

  int prec;  // of the arithmetic: half storage computes in float and stands here as 1
  const Backend& backend;
  std::ostringstream text;
  unsigned next_id = 0;
  std::vector<TwiddleTable> twiddle_tables;

 private:
  static const std::string& piece(const std::string& s) { return s; }
  static std::string piece(const char* s) { return s; }
  static std::string piece(int value) { return std::to_string(value); }

  std::string define(const char* fmt, const std::vector<std::string>& args);
  const TwiddleTable* table_for(int order) const;
};

}  // namespace kevra::codegen
