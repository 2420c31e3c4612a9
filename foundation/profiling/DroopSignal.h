// How strongly a sample's clock drop points at throttling. A drop only counts in proportion to
// how busy its domain is (an idle core clocks down by design), and the busier domain decides:
//   score = peakWeight × max(cpuDrop × cpuUtil/100, gpuDrop × gpuUtil/100)
// with drops as fractions of the reference clock and utilisations clamped to 0...100 %.
// Non-finite or negative inputs count as 0.
#pragma once

namespace kelvo::DroopSignal {

double peakAligned(double cpuDrop, double gpuDrop, double cpuUtilizationPct,
                   double gpuUtilizationPct, double peakWeight);

}  // namespace kelvo::DroopSignal
