// Logarithm, exponential and sine that are the same on every machine.
//
// The C library's may differ in the last bit from one processor to the next. These use only
// additions, multiplications, divisions and powers of two of 64-bit floats.
#pragma once

namespace kestrelvane {

// Natural logarithm (x > 0) and exponential, to about 1e-15 relative.
double portable_log(double x);
double portable_exp(double x);
// Sine, to about 1e-13.
double portable_sin(double x);

}  // namespace kestrelvane
