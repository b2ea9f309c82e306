#include "codegen/prelude.h"

#include <algorithm>

#include "codegen/format.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra::codegen {

std::string i64_prelude(const Backend& backend) {
  return format(
      "typedef $ I64;\n"
      "#define TG $\n"
      "#define DEV $\n",
      {backend.int64_type(), backend.group_space(), backend.device_space()});
}

std::string complex_prelude(const Backend& backend, int prec) {
  const std::string q = backend.device_inline();
  const std::string scalar = backend.scalar_type(prec);
  return i64_prelude(backend) +
         format(
             "typedef $ cplx;\n"
             "$cplx cmk($ r, $ i){cplx z;z.x=r;z.y=i;return z;}\n"
             "$cplx cadd(cplx a, cplx b){return cmk(a.x+b.x, a.y+b.y);}\n"
             "$cplx csub(cplx a, cplx b){return cmk(a.x-b.x, a.y-b.y);}\n"
             "$cplx cmul(cplx a, cplx b){return cmk(a.x*b.x - a.y*b.y, a.x*b.y + a.y*b.x);}\n",
             {backend.vector2_type(prec), q, scalar, scalar, q, q, q});
}

std::string packed_prelude(const Backend& backend) {
  const std::string q = backend.device_inline();
  return backend.source_preamble(kHalf) + i64_prelude(backend) +
         format(
             "struct cplx { __half2 x, y; };\n"
             "typedef __half2 iot;\n"
             "$cplx cmk(__half2 r, __half2 i){cplx z;z.x=r;z.y=i;return z;}\n"
             "$cplx cmk(__half r, __half i){return cmk(__half2half2(r), __half2half2(i));}\n"
             "$cplx cmk(float r, float i){return cmk(__float2half2_rn(r), "
             "__float2half2_rn(i));}\n"
             "$cplx cadd(cplx a, cplx b){return cmk(__hadd2(a.x,b.x), __hadd2(a.y,b.y));}\n"
             "$cplx csub(cplx a, cplx b){return cmk(__hsub2(a.x,b.x), __hsub2(a.y,b.y));}\n"
             "$cplx cmul(cplx a, cplx b){return cmk(__hsub2(__hmul2(a.x,b.x), "
             "__hmul2(a.y,b.y)), __hadd2(__hmul2(a.x,b.y), __hmul2(a.y,b.x)));}\n",
             {q, q, q, q, q, q});
}

std::string storage_typedef(const Backend& backend, int compute, int storage) {
  return format("typedef $ iot;\n", {storage == compute ? "cplx" : backend.vector2_type(storage)});
}

std::string shp_define(bool on) {
  return on ? shp_define_shift(4) : "#define SHP(i) (i)\n";
}
std::string shp_define_shift(int k) {
  return format("#define SHP(i) ((i)+((i)>>$))\n", {std::to_string(k)});
}
std::string shp_define_spaced(int k) {
  return k == 0 ? shp_define(false)
                : format("#define SHP(i) ((i) + ((i)>>$))\n", {std::to_string(k)});
}

std::string rsp_define(bool on) {
  return format(
      "#ifndef RSP\n"
      "#define RSP(i) $\n"
      "#endif\n",
      {on ? "((i) + ((i) >> 4))" : "(i)"});
}

std::string reflect_prelude(int pad) {
  return format("#define PAD $\n", {std::to_string(pad)}) +
         "#define refl(pos) ((pos) < PAD ? PAD - (pos) : ((pos) >= PAD + SIG_LEN ? "
         "(2*SIG_LEN - 2 + PAD) - (pos) : (pos) - PAD))\n";
}

std::string schedule_prelude(const Backend& backend, const StftConfig& config) {
  const bool half = config.prec == kHalf || config.in_prec == kHalf || config.out_prec == kHalf;
  const std::string type = backend.uint_type();
  return backend.source_preamble(half ? kHalf : config.prec) +
         complex_prelude(backend, config.prec) +
         format("$$ brev($ x){return $ >> (32 - $);}\n",
                {backend.device_inline(), type, type, backend.bit_reverse("x"),
                 std::to_string(std::max(ceil_log2(config.n_fft / 2), 1))}) +
         reflect_prelude(config.pad);
}

}  // namespace kevra::codegen
