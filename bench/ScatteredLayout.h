// The layout of a virtual disk restored from an incremental-forever backup
// chain, for the redirected-file benchmarks: count segments of random sizes
// from 4 KiB to 1 MiB (4 KiB steps, spread evenly on a log scale), in
// ascending order with holes between them that spread the rest of the
// file's size, each taken from one of several sparse sources at a random
// 4 KiB-aligned offset below sourceSize. The same seed gives the same
// layout.
//
// The benchmarks take the source bytes from the first SCATTERED_WINDOW
// bytes of each source, and compare with plain reads inside such a window,
// both read once before timing: a read of a sparse file's hole that is not
// in the page cache costs the kernel a page allocation and clearing per
// page, far more than the lookup, and would hide what is measured.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>

constexpr long long SCATTERED_WINDOW = 64LL << 20;

// add(source index, source offset, offset, length) for each segment; segments
// that would run past fileSize are left out.
template <typename Add>
void ForEachScatteredSegment(long long count, long long fileSize, int sources, long long sourceSize, Add add) {
    constexpr long long PAGE = 4096;
    std::mt19937_64 gen(20261122);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    // Mean of the sizes: 4 KiB times the mean of 256^u for u in [0, 1).
    const double meanSize = (double)PAGE * 255.0 / std::log(256.0);
    const double meanGap = std::max(0.0, (double)fileSize / (double)count - meanSize);
    long long offset = 0;
    for (long long i = 0; i < count; ++i) {
        long long gapPages = (long long)(unit(gen) * 2.0 * meanGap / PAGE);
        long long length = PAGE * (long long)std::pow(256.0, unit(gen));
        offset += gapPages * PAGE;
        if (offset + length > fileSize) break;
        int source = (int)(gen() % (unsigned long long)sources);
        long long sourceOffset = PAGE * (long long)(gen() % (unsigned long long)((sourceSize - length) / PAGE));
        add(source, sourceOffset, offset, length);
        offset += length;
    }
}
