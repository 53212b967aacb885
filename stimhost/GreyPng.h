// Camera images as PNG.
#pragma once

#include "host/QsGrabber.h"

#include <string>

namespace Stimhost {

// 8 bits of grey: black up to `black`, white from `white` on. The same image gives the same bytes.
std::string GreyPng(const SQsGrabberImage& image, double black, double white);

} // namespace Stimhost
