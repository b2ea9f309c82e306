#include "codegen/kernels/db.h"

#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

Kernel make_db(const Values& values) {
  const codegen::DbKernel kernel{values.at("prec")};
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

Kernel make_db_inverse(const Values& values) {
  const codegen::DbInverseKernel kernel{values.at("prec")};
  return {kernel.kName, kernel.key(), kernel.kBlock, 0, true, kernel.source(hip)};
}

}  // namespace

Family db_family() {
  return {"db",
          "values to decibels, with a floor below each item's peak",
          {float_or_double},
          make_db,
          {{{"prec", 1}}, {{"prec", 2}}}};
}

Family db_inverse_family() {
  return {"db_inverse",
          "decibels to values",
          {float_or_double},
          make_db_inverse,
          {{{"prec", 1}}, {{"prec", 2}}}};
}

}  // namespace kevra_tools
