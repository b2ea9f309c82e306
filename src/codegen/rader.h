// Prime lengths as cyclic convolutions (C. M. Rader, "Discrete Fourier transforms when the number
// of data samples is prime", 1968): with g a primitive root of P, the P - 1 nontrivial outputs are
// a convolution of the inputs and the roots, both taken in the order of the powers of g.
#pragma once

#include <string>
#include <vector>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// a^e mod m for m below 2^16 by squaring; 1 for e below 1.
int pow_mod(int a, int e, int m);
// The smallest primitive root of a prime.
int primitive_root(int prime);

// How the cyclic order maps to element numbers: input q stands at place log[q] (log[0] is unused),
// place m of the result is output out[m].
struct RaderMaps {
  std::vector<int> log;
  std::vector<int> out;
};
RaderMaps rader_maps(int prime, int g);

// The spectrum of the convolution's filter, prime - 1 values, by direct summation.
void rader_filter(int prime, int g, std::vector<double>& re, std::vector<double>& im);

// The forward transform of a prime number of values in registers. Hands back the results' names.
std::vector<std::string> register_rader(KernelWriter& w, const std::vector<std::string>& x,
                                        int prime);

}  // namespace kevra::codegen
