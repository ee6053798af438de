#pragma once
// A synthetic scene for the demo and the benchmark: a smooth sky-to-ground gradient with a
// few soft shapes in front, RGB U8.
#include "Host/Media/Frame.h"

namespace QCli {

QMedia::Frame makeSampleImage(int width, int height);

}  // namespace QCli
