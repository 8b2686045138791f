#pragma once

#include <windows.h>

#include <cstdint>
#include <mfapi.h>
#include <vector>
#include <wrl/client.h>

using Bytes = std::vector<std::uint8_t>;

/// The type of video frames of this size.
Microsoft::WRL::ComPtr<IMFMediaType> VideoType(std::int32_t width, std::int32_t height,
                                               const GUID& subtype = MFVideoFormat_RGB24);

/// A sample over a given buffer.
Microsoft::WRL::ComPtr<IMFSample> SampleOver(IMFMediaBuffer* buffer);

/// A sample over a buffer with this content, all of it in use.
Microsoft::WRL::ComPtr<IMFSample> Sample(const Bytes& content);

/// What a sample's buffer holds.
Bytes Content(IMFSample* sample);
