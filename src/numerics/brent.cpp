#include "numerics/brent.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestrelvane {

namespace {

constexpr int max_iterations = 100;
constexpr float golden = 0.381966f;   // the smaller part of the golden section
constexpr float least_step = 1e-10f;  // keeps a minimum at 0 from asking for none
constexpr float float_accuracy = 6e-8f;

struct sample {
  float x, f;
};

// The three lowest points so far; the parabola through them proposes the next.
struct lowest_points {
  sample best, second, third;

  void add(const sample& u) {
    // Of equal values the newest is the best, so that a flat floor is walked over.
    if (u.f <= best.f) {
      third = second;
      second = best;
      best = u;
    } else if (u.f <= second.f || second.x == best.x) {
      third = second;
      second = u;
    } else if (u.f <= third.f || third.x == best.x || third.x == second.x) {
      third = u;
    }
  }

  // Step from the best point to the vertex, as the quotient p / q with q >= 0.
  void parabola(float& p, float& q) const {
    const float r = (best.x - second.x) * (best.f - third.f);
    q = (best.x - third.x) * (best.f - second.f);
    p = (best.x - third.x) * q - (best.x - second.x) * r;
    q = 2.0f * (q - r);
    if (q > 0.0f) p = -p;
    q = std::fabs(q);
  }
};

}  // namespace

float brent(float ax, float bx, float cx, const scalar_function& f, float tolerance, float& xmin,
            const failure_log& log) {
  float a = std::min(ax, cx);
  float b = std::max(ax, cx);
  const sample start{bx, f(bx)};
  lowest_points low{start, start, start};
  float step = 0.0f;
  float step_before_last = 0.0f;
  for (int iteration = 0; iteration < max_iterations; ++iteration) {
    const float x = low.best.x;
    const float middle = 0.5f * (a + b);
    const float nearest = tolerance * std::fabs(x) + least_step;
    // The bracket is as short as the accuracy at x can tell apart.
    if (std::fabs(x - middle) <= 2.0f * nearest - 0.5f * (b - a)) {
      xmin = x;
      return low.best.f;
    }
    bool by_parabola = false;
    if (std::fabs(step_before_last) > nearest) {
      float p, q;
      low.parabola(p, q);
      // Taken only if it halves the step before last and stays inside.
      by_parabola = std::fabs(p) < std::fabs(0.5f * q * step_before_last) && p > q * (a - x) &&
                    p < q * (b - x);
      if (by_parabola) {
        step_before_last = step;
        step = p / q;
        const float u = x + step;
        if (u - a < 2.0f * nearest || b - u < 2.0f * nearest) {
          step = std::copysign(nearest, middle - x);
        }
      }
    }
    // The golden section of the larger part, when the parabola cannot be trusted.
    if (!by_parabola) {
      step_before_last = x >= middle ? a - x : b - x;
      step = golden * step_before_last;
    }
    const float at = std::fabs(step) >= nearest ? x + step : x + std::copysign(nearest, step);
    const sample u{at, f(at)};
    if (u.f <= low.best.f) {
      (u.x >= x ? a : b) = x;
    } else {
      (u.x < x ? a : b) = u.x;
    }
    low.add(u);
  }
  log("routine brent exceeded maximum iterations");
  xmin = low.best.x;
  return low.best.f;
}

float zbrent(const scalar_function& f, float x1, float x2, float tolerance,
             const failure_log& log) {
  sample before{x1, f(x1)};
  sample best{x2, f(x2)};
  // A value of exactly 0 at an end counts as a root.
  if ((before.f > 0.0f && best.f > 0.0f) || (before.f < 0.0f && best.f < 0.0f)) {
    log("root must be bracketed for zbrent");
    return x2;
  }
  sample other = best;  // the end of the bracket across the root
  float step = 0.0f;
  float step_before = 0.0f;
  for (int iteration = 0; iteration < max_iterations; ++iteration) {
    if ((best.f > 0.0f) == (other.f > 0.0f)) {
      other = before;
      step = step_before = best.x - before.x;
    }
    // The better end is always the one that the next step starts from.
    if (std::fabs(other.f) < std::fabs(best.f)) {
      before = best;
      best = other;
      other = before;
    }
    const float nearest = 2.0f * float_accuracy * std::fabs(best.x) + 0.5f * tolerance;
    const float half = 0.5f * (other.x - best.x);
    if (std::fabs(half) <= nearest || best.f == 0.0f) return best.x;
    bool interpolated = false;
    if (std::fabs(step_before) >= nearest && std::fabs(before.f) > std::fabs(best.f)) {
      const float s = best.f / before.f;
      float p, q;
      if (before.x == other.x) {  // two points: the secant
        p = 2.0f * half * s;
        q = 1.0f - s;
      } else {  // three: inverse parabola
        const float r = before.f / other.f;
        const float t = best.f / other.f;
        p = s * (2.0f * half * r * (r - t) - (best.x - before.x) * (t - 1.0f));
        q = (r - 1.0f) * (t - 1.0f) * (s - 1.0f);
      }
      if (p > 0.0f) q = -q;
      p = std::fabs(p);
      // Taken only within three quarters of the bracket, and when it shrinks faster than the step
      // before.
      interpolated =
          2.0f * p < std::min(3.0f * half * q - std::fabs(nearest * q), std::fabs(step_before * q));
      if (interpolated) {
        step_before = step;
        step = p / q;
      }
    }
    if (!interpolated) step = step_before = half;
    before = best;
    best.x += std::fabs(step) > nearest ? step : std::copysign(nearest, half);
    best.f = f(best.x);
  }
  log("zbrent exceeded maximum iterations");
  return best.x;
}

}  // namespace kestrelvane
