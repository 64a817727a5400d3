// The hillshade of a cell from its derivatives: the brightness 0..255 of the surface under one
// light, or the weighted sum over six (multidirectional).
#pragma once

#include <algorithm>
#include <cmath>

#include "functions/terrain/surface_engine.h"

namespace pw::functions::terrain {

// One light: cos of the zenith, cos D x sin Z, sin D x sin Z and its weight.
struct Light {
  double cosZenith = 0, c = 0, s = 0, weight = 1;
};

// The light of a sun at `azimuth` and `altitude` degrees.
inline Light MakeLight(double azimuth, double altitude, double weight) {
  constexpr double kPi = 3.141592653589793;
  const double zenith = (90.0 - altitude) * kPi / 180.0;
  const double direction = (360.0 - azimuth + 90.0) * kPi / 180.0;
  return {std::cos(zenith), std::cos(direction) * std::sin(zenith),
          std::sin(direction) * std::sin(zenith), weight};
}

struct HillshadeFormula {
  struct Params {
    double fx = 0, fy = 0;  // z-factor over 8 x cell size
    int lights = 1;         // 1 traditional, 6 multidirectional
    Light light[6];
  };
  static constexpr double kPeriod = 0;

  template <class O, class D>
  PW_ALWAYS_INLINE static void Row(const D d, LONG width, LONG, const Params& p,
                                   O* __restrict out) {
    const double fx = p.fx, fy = p.fy;
    if (p.lights == 1) {
      const Light l = p.light[0];
      for (LONG c = 0; c < width; ++c) {
        const double px = fx * d.X(c), qy = fy * d.Y(c);
        const double n = std::sqrt(1.0 + px * px + qy * qy);
        const double v = (qy * l.s - px * l.c + l.cosZenith) * 255.0 / n;
        out[c] = StoreCell<O, true>(v > 0 ? v : 0.0);
      }
    } else {
      Light l[6];
      for (int k = 0; k < 6; ++k) l[k] = p.light[k];
      for (LONG c = 0; c < width; ++c) {
        const double px = fx * d.X(c), qy = fy * d.Y(c);
        const double n = std::sqrt(1.0 + px * px + qy * qy);
        double sum = 0;
        for (int k = 0; k < 6; ++k) {
          const double v = (qy * l[k].s - px * l[k].c + l[k].cosZenith) * 255.0 / n;
          sum += (v > 0 ? v : 0.0) * l[k].weight;
        }
        out[c] = StoreCell<O, true>(sum);
      }
    }
  }

  static double Cell(double dzdx, double dzdy, LONG, const Params& p) {
    const double px = p.fx * dzdx, qy = p.fy * dzdy;
    const double n = std::sqrt(1 + px * px + qy * qy);
    double v = 0;
    for (int k = 0; k < p.lights; ++k) {
      const Light& l = p.light[k];
      v += std::max(0.0, (qy * l.s - px * l.c + l.cosZenith) * 255.0 / n) *
           (p.lights == 1 ? 1.0 : l.weight);
    }
    return v;
  }
};

}  // namespace pw::functions::terrain
