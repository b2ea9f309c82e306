// The dialect of the generated text: how the target language spells what GPU dialects spell
// differently. Generators know `Backend` alone, take it by reference and ask it for text.
#pragma once

#include <string>

namespace kevra::codegen {

using std::string;  // the operations below read as a table of texts

// Stateless. Operations that take a precision treat every code but 0 (half) and 2 (double) as
// float (1). Each returns fresh text and changes nothing.
class Backend {
 public:
  Backend() = default;
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;
  virtual ~Backend() = default;

  // Text that stands first in a source. `prec` is 0 when the storage type is half.
  virtual string source_preamble(int prec) const = 0;

  // Types.
  virtual string scalar_type(int prec) const = 0;
  virtual string vector2_type(int prec) const = 0;
  virtual string kernel_qualifier() const = 0;
  // Stands between qualifier and name, with its own leading blank.
  virtual string launch_bounds(int threads, int min_blocks) const = 0;
  virtual string const_pointer_type(const string& type) const = 0;
  virtual string pointer_type(const string& type) const = 0;
  virtual string shared_array(const string& type, const string& name) const = 0;

  // Where a thread stands, and how the threads of a block meet.
  virtual string thread_index() const = 0;
  virtual string block_index_x() const = 0;
  virtual string block_index_y() const = 0;
  virtual string block_size() const = 0;
  virtual string barrier_call() const = 0;

  // Arithmetic. The calls without a precision print the float form.
  virtual string sincos_call(int prec, const string& angle, const string& cos_name,
                             const string& sin_name) const = 0;
  // The value of the thread whose number differs by `lane_mask`, within groups of 32.
  virtual string shuffle_xor(const string& value, const string& lane_mask) const = 0;
  virtual string log10_call(const string& x) const = 0;
  virtual string sqrt_call(const string& x) const = 0;
  virtual string log_call(const string& x) const = 0;
  virtual string exp_call(const string& x) const = 0;
  virtual string pow_call(const string& a, const string& b) const = 0;
  virtual string cos_call(int prec, const string& x) const = 0;
  virtual string atomic_add(const string& target, const string& value) const = 0;
  virtual string atomic_add_wide(const string& target, const string& value) const = 0;
  // The thread count at which the shuffle forms apply.
  virtual int shuffle_width() const = 0;
  virtual string make_vector2(int prec, const string& a, const string& b) const = 0;
  virtual string convert_scalar(int prec, const string& x) const = 0;

  // Spellings of the prelude.
  virtual string device_inline() const = 0;
  virtual string uint_type() const = 0;
  virtual string int64_type() const = 0;
  virtual string bit_reverse(const string& x) const = 0;
  // True where two floats may be read at once through the two-float vector type.
  virtual bool has_vector_loads() const = 0;
  virtual string shared_pointer_type(const string& type) const = 0;
  // Address-space words of shared and of device memory.
  virtual string group_space() const = 0;
  virtual string device_space() const = 0;

  // A kernel's head. `index` is a parameter's place in the list, for dialects that number them.
  virtual string pointer_param(bool is_const, const string& type, const string& name,
                               int index) const = 0;
  virtual string scalar_param(const string& type, const string& name, int index) const = 0;
  // What follows the last parameter, without and with a shared block.
  virtual string extra_params() const = 0;
  virtual string extra_params_shared(const string& type, const string& name) const = 0;
  // The first line of the body of a kernel with a shared block.
  virtual string shared_declaration(const string& type, const string& name) const = 0;
};

// What the CUDA-like dialects have in common. What they settle apart (`source_preamble`,
// `launch_bounds`, `shuffle_xor`) is left to the dialect itself.
class CudaBackend : public Backend {
 public:
  string scalar_type(int prec) const override;
  string vector2_type(int prec) const override;
  string kernel_qualifier() const override;
  string const_pointer_type(const string& type) const override;
  string pointer_type(const string& type) const override;
  string shared_array(const string& type, const string& name) const override;
  string thread_index() const override;
  string block_index_x() const override;
  string block_index_y() const override;
  string block_size() const override;
  string barrier_call() const override;
  string sincos_call(int prec, const string& angle, const string& cos_name,
                     const string& sin_name) const override;
  string log10_call(const string& x) const override;
  string sqrt_call(const string& x) const override;
  string log_call(const string& x) const override;
  string exp_call(const string& x) const override;
  string pow_call(const string& a, const string& b) const override;
  string cos_call(int prec, const string& x) const override;
  string atomic_add(const string& target, const string& value) const override;
  string atomic_add_wide(const string& target, const string& value) const override;
  int shuffle_width() const override;
  string make_vector2(int prec, const string& a, const string& b) const override;
  string convert_scalar(int prec, const string& x) const override;
  string device_inline() const override;
  string uint_type() const override;
  string int64_type() const override;
  string bit_reverse(const string& x) const override;
  bool has_vector_loads() const override;
  string shared_pointer_type(const string& type) const override;
  string group_space() const override;
  string device_space() const override;
  string pointer_param(bool is_const, const string& type, const string& name,
                       int index) const override;
  string scalar_param(const string& type, const string& name, int index) const override;
  string extra_params() const override;
  string extra_params_shared(const string& type, const string& name) const override;
  string shared_declaration(const string& type, const string& name) const override;
};

class HipBackend final : public CudaBackend {
 public:
  string source_preamble(int prec) const override;
  string launch_bounds(int threads, int min_blocks) const override;
  string shuffle_xor(const string& value, const string& lane_mask) const override;
};

}  // namespace kevra::codegen
