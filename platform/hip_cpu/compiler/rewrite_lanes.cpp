#include "compiler/rewrite_lanes.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "compiler/kernel_text.h"
#include "compiler/lane_cells.h"
#include "compiler/lane_types.h"

namespace kevra_cpu {

namespace {

const std::string device = "::kevra_cpu_device::";

class LaneRewriter {
 public:
  explicit LaneRewriter(std::string_view text) : text_(text), types_(text_) {}

  LaneText rewrite() {
    if (std::string refusal = refused(); !refusal.empty()) return {{}, std::move(refusal)};
    bool waits = false;
    KernelPlace place;
    for (size_t i = 0; i < text_.size(); ++i) {
      if (text_.token(i).in_directive) continue;
      if (text_.is(i, "__global__")) {
        if (!text_.kernel_at(i, place) || !place.has_body()) return {};
        if (place.waits) kernel(place);
        // Threads without waits run in a loop that the compiler makes vectors of by itself.
        else
          text_.replace(place.first, place.end, "");
        waits |= place.waits;
        i = place.end;
      } else if (text_.is(i, "__device__")) {
        i = device_function(i);
      }
    }
    if (!waits) return {};
    return {"namespace { " + text_.apply() + "\n}\n", {}, most_stores() <= few_stores && !wide()};
  }

 private:
  // How many values a thread holds shows in the elements that it stores between two waits. Measured
  // with 512-bit vectors of floats: sixteen lanes are up to half faster than eight in radices up to
  // 10, and half as fast from 16 on, where values no longer stay in registers and nearest cache.
  static constexpr int few_stores = 10;

  int most_stores() const {
    int stores = 0, most = 0;
    for (size_t i = 0; i + 2 < text_.size(); ++i) {
      if (text_.is(i, "__syncthreads")) stores = 0;
      if (text_.is(i, "]") && text_.is(i + 1, "=") && !text_.is(i + 2, "="))
        most = std::max(most, ++stores);
    }
    return most;
  }

  bool wide() const {
    for (size_t i = 0; i < text_.size(); ++i)
      if (text_.token(i).text.starts_with("double")) return true;
    return false;
  }

  // What no lane form can do, told without asking the compiler.
  std::string refused() const {
    for (size_t i = 0; i < text_.size(); ++i) {
      const std::string_view word = text_.token(i).text;
      if (!text_.is_word(i)) continue;
      if ((word.starts_with("atomic") && word != "atomicAdd") || word == "template" ||
          (word == "include" && text_.is(i - 1, "#")))
        return "its text has '" + std::string(word) + "'";
    }
    return {};
  }

  void kernel(const KernelPlace& place) {
    const std::string name(text_.token(place.name).text);
    std::string head = "static " + device + "Task " + name + "(" + device + "Thread kevra_thread";
    if (place.close != place.open + 1) head += ", ";
    text_.replace(place.first, place.open, std::move(head));
    std::string wrapped;
    for (const size_t parameter : parameters(place.open, place.close)) {
      const std::string word(text_.token(parameter).text);
      text_.replace(parameter, parameter, "kevra_p_" + word);
      wrapped += " auto " + word + " = " + device + "lane_argument(kevra_p_" + word + ");";
    }
    text_.insert_behind(place.body, wrapped);
    statics_end_ = "0";
    cells_.emplace(text_, place.body + 1, place.end);
    body(place.body + 1, place.end, {});
    const std::string cells = std::to_string(cells_->place(text_, wide()));
    cells_.reset();
    text_.insert_behind(place.body, " constexpr unsigned kevra_cells = " + cells + ";");
    text_.insert_behind(place.end, " KEVRA_CPU_LANE_KERNEL(" + name + ", " + cells + ");");
  }

  // The names of a parameter list, each the last word before a comma or the end.
  std::vector<size_t> parameters(size_t open, size_t close) const {
    std::vector<size_t> names;
    for (size_t i = open + 1; i < close; ++i)
      if (text_.is_word(i) && (text_.is(i + 1, ",") || i + 1 == close)) names.push_back(i);
    return names;
  }

  // [qualifiers] type name ( parameters ) { body }: a template over what its arguments are. Gives
  // the last token that belongs to it.
  size_t device_function(size_t at) {
    size_t type = at;
    while (text_.is(type, "__device__") || text_.is(type, "__host__") ||
           text_.is(type, "__forceinline__") || text_.is(type, "__noinline__") ||
           text_.is(type, "static") || text_.is(type, "inline"))
      ++type;
    const bool nothing = text_.is(type, "void");
    const size_t stars = nothing ? type + 1 : types_.type_end(type);
    const size_t name = types_.stars_end(stars), open = name + 1;
    if (stars == type || !text_.is_word(name) || !text_.is(open, "(")) return at;
    const size_t close = text_.closing(open);
    if (!text_.is(close + 1, "{")) return at;
    const size_t end = text_.closing(close + 1);
    const std::string result = nothing ? std::string() : text_.words(type, name);
    text_.replace(at, name - 1, "static inline auto");
    text_.insert_behind(close + 1, wrap_parameters(open, close));
    body(close + 2, end, result);
    return end;
  }

  std::string wrap_parameters(size_t open, size_t close) {
    std::string wrapped;
    size_t begin = open + 1;
    for (const size_t name : parameters(open, close)) {
      const std::string word(text_.token(name).text);
      if (text_.is(name - 1, "&")) {
        changes_arguments_.insert(text_.token(open - 1).text);
        text_.replace(begin, name, "auto& " + word);
      } else {
        text_.replace(begin, name, "auto kevra_p_" + word);
        wrapped += " auto " + word + " = " + device + "lane_variable<" + text_.words(begin, name) +
                   ">(kevra_p_" + word + ");";
      }
      begin = name + 2;
    }
    return wrapped;
  }

  // `result`: the type that a device function returns; empty where nothing is.
  void body(size_t begin, size_t end, const std::string& result) {
    body_begin_ = begin;
    body_end_ = end;
    cast_close_ = 0;
    for (size_t i = begin; i < end; ++i) {
      if (text_.token(i).in_directive) continue;
      if (text_.is(i, "return")) {
        returned(i, result);
      } else if (text_.is(i, "extern") && text_.is(i + 1, "__shared__")) {
        i = shared_array(i, i + 2, true);
      } else if (text_.is(i, "__shared__")) {
        i = shared_array(i, i + 1, false);
      } else if (begins_statement(i) && declaration(i)) {
        i = types_.stars_end(types_.type_end(i));
      } else if (types_.is_type(i) && text_.is(i + 1, "(")) {
        text_.replace(i, i, device + "lane_cast<" + std::string(text_.token(i).text) + ">");
      } else {
        cast(i);
      }
    }
  }

  void returned(size_t at, const std::string& result) {
    if (cells_) return text_.replace(at, at, "co_return");
    size_t last = at;
    while (last + 1 < body_end_ && !text_.is(last + 1, ";")) ++last;
    if (last == at || result.empty()) return;
    text_.insert_behind(at, " " + device + "lane_cast<" + result + ">(");
    text_.insert_behind(last, ")");
  }

  size_t shared_array(size_t at, size_t type, bool dynamic) {
    size_t last = type;
    while (last < body_end_ && !text_.is(last, ";")) ++last;
    size_t bracket = type;
    while (bracket < last && !text_.is(bracket, "[")) ++bracket;
    if (last == body_end_ || bracket < type + 2) return at;
    const std::string name(text_.token(bracket - 1).text);
    std::string text = "typedef " + device + "Lanes<" + text_.words(type, bracket - 1) +
                       "> kevra_type_" + name + " " + text_.words(bracket, last) + "; ";
    if (dynamic) {
      text += "KEVRA_CPU_DYNAMIC_SHARED(" + name + ")";
    } else {
      text += "KEVRA_CPU_STATIC_SHARED(" + name + ", " + statics_end_ + ")";
      statics_end_ = "kevra_end_" + name;
    }
    text_.replace(at, last - 1, std::move(text));
    return last;
  }

  bool begins_statement(size_t i) const {
    if (i == body_begin_) return true;
    if (text_.token(i - 1).in_directive) return true;
    return text_.is(i - 1, ";") || text_.is(i - 1, "{") || text_.is(i - 1, "}") ||
           text_.is(i - 1, ")") || in_for(i);
  }
  bool in_for(size_t i) const { return text_.is(i - 1, "(") && text_.is(i - 2, "for"); }

  // One declarator: its name, its '=' (0 without) and its last token.
  struct Declarator {
    size_t name, equals, last;
    bool array;
  };

  // Rewrites the declaration that begins at `at`; false when none does.
  bool declaration(size_t at) {
    const size_t stars = types_.type_end(at);
    const size_t first = types_.stars_end(stars);
    if (stars == at || !text_.is_word(first) || types_.is_type(first)) return false;
    std::vector<Declarator> all;
    for (size_t name = first;;) {
      const Declarator d = declarator(name);
      if (d.last == 0) return false;
      all.push_back(d);
      if (text_.is(d.last + 1, ";")) break;
      name = d.last + 2;
    }
    if (all.size() > 1 && first != stars) return false;  // the stars are the first one's alone
    const std::string type = text_.words(at, first);
    text_.replace(at, first - 1, head(all[0], type));
    for (size_t i = 0; i < all.size(); ++i) {
      initialiser(all[i], type);
      if (cells_ && first == stars && !all[i].array && !types_.is_whole(at, stars))
        cells_->declared(all[i].name, all[i].equals != 0);
      if (i + 1 == all.size()) break;
      if (!in_for(at))
        text_.replace(all[i].last + 1, all[i].last + 1, "; " + head(all[i + 1], type));
    }
    return true;
  }

  Declarator declarator(size_t name) const {
    Declarator d{name, 0, 0, false};
    if (!text_.is_word(name)) return d;
    size_t i = name + 1;
    while (text_.is(i, "[")) {
      d.array = true;
      i = text_.closing(i) + 1;
    }
    if (text_.is(i, "=") && !(text_.is(i + 1, "=") && text_.adjoins(i + 1))) {
      d.equals = i;
      for (++i; i < body_end_ && !text_.is(i, ";") && !text_.is(i, ","); ++i)
        if (text_.is(i, "(") || text_.is(i, "[") || text_.is(i, "{")) i = text_.closing(i);
    }
    if (text_.is(i, ";") || text_.is(i, ",")) d.last = i - 1;
    return d;
  }

  std::string head(const Declarator& d, const std::string& type) const {
    return d.array || d.equals == 0 ? device + "LaneVariable<" + type + ">" : "auto";
  }

  void initialiser(const Declarator& d, const std::string& type) {
    if (d.array || d.equals == 0) return;
    const std::string keep = assigned(d) ? "lane_variable<" : "lane_cast<";
    text_.replace(d.equals, d.equals, "= " + device + keep + type + ">(");
    least(d);
    text_.insert_behind(d.last, ")");
  }

  // `a < b ? a : b` as the whole initialiser: lanes on both sides of the bound may have a result of
  // equal distance all the same, as where the last row bounds the rows.
  void least(const Declarator& d) {
    size_t less = 0, question = 0, colon = 0;
    for (size_t i = d.equals + 1; i <= d.last; ++i) {
      if (text_.is(i, "(")) return;  // there may be a cast in it, which is rewritten by itself
      if (text_.is(i, "[")) i = text_.closing(i);
      if (text_.is(i, "<") && less == 0) less = i;
      if (text_.is(i, "?")) question = i;
      if (text_.is(i, ":")) colon = i;
    }
    if (less == 0 || question < less || colon < question || text_.is(less + 1, "=") ||
        text_.words(d.equals + 1, less) != text_.words(question + 1, colon) ||
        text_.words(less + 1, question) != text_.words(colon + 1, d.last + 1))
      return;
    text_.insert_behind(d.equals, " " + device + "least(");
    text_.replace(less, less, ",");
    text_.replace(question, d.last, ")");
  }

  // Whether the variable gets another value, or its address is taken, behind its declaration.
  bool assigned(const Declarator& d) const {
    const std::string_view name = text_.token(d.name).text;
    for (size_t i = d.last + 1; i < body_end_; ++i) {
      if (changes_arguments_.count(text_.token(i).text) != 0 && passed(name, i + 1)) return true;
      if (!text_.is(i, name) || text_.is(i - 1, ".")) continue;
      if (text_.is(i - 1, "&") && !text_.is(i - 2, "&")) return true;
      size_t next = i + 1;
      while (text_.is(next, ".") || text_.is(next, "["))
        next = text_.is(next, ".") ? next + 2 : text_.closing(next) + 1;
      if (assignment(next)) return true;
    }
    return false;
  }

  // Whether one of the arguments is the variable itself.
  bool passed(std::string_view name, size_t open) const {
    for (size_t i = open + 1; i < text_.closing(open); ++i)
      if (text_.is(i, name) && (text_.is(i - 1, "(") || text_.is(i - 1, ",")) &&
          (text_.is(i + 1, ",") || text_.is(i + 1, ")")))
        return true;
    return false;
  }

  bool assignment(size_t i) const {
    const auto equals = [&](size_t at) {
      return text_.is(at, "=") && !(text_.is(at + 1, "=") && text_.adjoins(at + 1));
    };
    if (equals(i)) return true;
    for (const char* mark : {"+", "-", "*", "/", "%", "&", "|", "^"})
      if (text_.is(i, mark)) return text_.adjoins(i + 1) && equals(i + 1);
    return (text_.is(i, "<") || text_.is(i, ">")) && text_.is(i + 1, text_.token(i).text) &&
           text_.adjoins(i + 1) && equals(i + 2);
  }

  void cast(size_t open) {
    const bool inner = open > 0 && open - 1 == cast_close_;
    const size_t close = types_.cast_close(open, inner);
    if (close == open) return;
    cast_close_ = close;
    text_.replace(open, close, device + "lane_cast<" + text_.words(open + 1, close) + ">(");
    text_.insert_behind(types_.operand_end(close + 1), ")");
  }

  KernelText text_;
  LaneTypes types_;
  size_t body_begin_ = 0, body_end_ = 0;
  std::optional<LaneCells> cells_;  // of the kernel whose body it is, none in device functions
  size_t cast_close_ = 0;           // of the cast that was met last
  std::string statics_end_;         // bytes of static shared memory that are taken
  std::set<std::string_view> changes_arguments_;  // device functions with reference parameters
};

}  // namespace

LaneText rewrite_lanes(std::string_view text) {
  return LaneRewriter(text).rewrite();
}

}  // namespace kevra_cpu
