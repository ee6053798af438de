#pragma once
// What one detection render reads from the host: its outputs, the chosen object type, the tracker
// settings and what the frames of a tracking walk or a smoothing window bring from the cache.
// Filled by the detection effect before any network runs; the object types read the mask output,
// the region, the scale factors and the smoothing settings from it.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ML/Buffer.h"
#include "ML/Host.h"
#include "ML/ImageImp.h"
#include "Plugin/ModelInfo.h"
#include "Plugin/Models/YOLO7/ObjectTypeBase.h"
#include "Plugin/Models/YOLO7/Tracker.h"
#include "Plugin/Models/YOLO7/TrackerWalk.h"

namespace ML::YOLO7 {

class ObjectTypeBase;

struct RenderState {
    Host* host = nullptr;
    u64 call = 0;
    i32 execH = 0, execW = 0;  // the detector's execution size
    std::shared_ptr<ObjectTypeBase> objectType;
    TrackerConfiguration trackerConfig;
    u32 frame = 0;

    // Outputs; any of them may be absent.
    Ptr<Buffer> jsonBuffer;
    Ptr<Buffer> segmentationBuffer;
    Ptr<Image> maskImage;       // one channel, covers the ROI
    Ptr<Image> colorizedImage;  // covers the ROI; only with a mask image
    Rect roi;

    // Tracking: the frames to track from the current one towards the first frame, and the stored
    // state where that walk stopped.
    TrackerWalkPlan walk;
    std::map<int, Ptr<Image>> input_images;
    std::map<int, Ptr<Buffer>> cached_detections;  // the detector's rows of a frame

    const ModelInfo* info = nullptr;  // the model description of the render
    u64 row_floats = 0, row_bytes = 0, detectionBufferBytes = 0;
    float scaleX = 1.0f, scaleY = 1.0f;  // shapes grown along their axes

    // Face segmentation, when the model description has it.
    i32 segExecH = 0, segExecW = 0;
    std::string segModelId;
    std::vector<std::string> segClassNames;
    float paddingFactor = 1.75f;
};

// Every host request of a render, with its checks, before any network runs; a render with
// prepareOnly stops after this, and the host has learnt what the render needs.
RenderState readRenderState(Host* host, u64 call, const ModelInfo& info, const ObjectTypeMap& types);

}  // namespace ML::YOLO7
