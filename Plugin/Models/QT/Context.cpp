#include "Plugin/Models/QT/Context.h"

#include <cstring>

#include "ML/Exception.h"
#include "Plugin/CachedCompute.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/QT/Sequence.h"
#include "Plugin/PluginLogger.h"
#include "Util/ML_Util.h"

namespace ML {

namespace {

Ptr<Buffer> findCached(Host* host, u64 call, const std::string& key) {
    return checkResult(host->findCachedBuffer(call, makeString(key)));
}

// One frame of the walk as the host gave it.
struct WalkFrame {
    i32 frame = 0;
    Rect rect;
    Ptr<Image> rgb;
    std::vector<Ptr<Image>> masks;  // null where not wanted
    Ptr<Image> colorized;           // asked frame only
};

void deliverMasks(ModelCommon& common, QT_TmpHostState& tmp, const WalkFrame& f) {
    const u64 plane = tmp.planeBytes();
    for (size_t i = 0; i < f.masks.size(); ++i) {
        if (!f.masks[i]) continue;
        tmp.planeA->upload(tmp.outMasks.data() + i * plane);
        common.tensorToHostImage(QT::planeDescription(tmp.outH, tmp.outW, Image::R, tmp.planeA->getDataType()),
                                 tmp.planeA, makeNewImageView(f.masks[i], f.rect));
    }
}

void colorize(ModelCommon& common, QT_TmpHostState& tmp, const QT::Submodels& submodels, const WalkFrame& f) {
    if (!f.colorized) return;
    tmp.makeColorizerTensors();
    const u32 type = tmp.planeA->getDataType();
    common.hostImageToTensor(makeNewImageView(f.rgb, f.rect), QT::planeDescription(tmp.outH, tmp.outW, Image::RGB, type),
                             tmp.colorIn);
    tmp.colorMasks->upload(tmp.outMasks.data());
    submodels.at("mask_colorizer")->run({tmp.colorIn, tmp.colorMasks}, {tmp.colorOut});
    common.tensorToHostImage(QT::planeDescription(tmp.outH, tmp.outW, Image::RGB, type), tmp.colorOut,
                             makeNewImageView(f.colorized, f.rect));
}

// The host's region of a frame, refused when empty.
Rect regionOf(Host* host, u64 call, i32 frame) {
    const Rect r = checkResult(host->getROI(call, static_cast<u32>(frame)));
    if (r.x1 <= r.x0 || r.y1 <= r.y0 || static_cast<i64>(r.x1) - r.x0 > QT::kMaxRegionSide ||
        static_cast<i64>(r.y1) - r.y0 > QT::kMaxRegionSide)
        ML_THROW("Region of interest of frame " + std::to_string(frame) + " is empty or too large: (" + std::to_string(r.x0) + ", " +
                 std::to_string(r.y0) + ") to (" + std::to_string(r.x1) + ", " + std::to_string(r.y1) + ")");
    return r;
}

}  // namespace

QT_Context::QT_Context(std::shared_ptr<ModelContext> context, std::shared_ptr<ModelCommon> common)
    : ModelBase(std::move(context), std::move(common)), plans(std::vector<TiledExecution::ExecSize>{{512, 1024}}) {
    dataType = modelContext->getBackendName() == "coreml" ? F32 : F16;
}

QT_ModelParams QT_Context::getParams(const ModelInfo& info) {
    auto found = modelParams.find(info.modelId);
    if (found == modelParams.end()) found = modelParams.emplace(info.modelId, QT_ModelParams::read(info.modelId, info.params)).first;
    return found->second;
}

QT_Context::Resources QT_Context::acquireResources(Host* host, u64 call, const QT_StateHeader& header,
                                                   const QT_ModelParams& params, i32 outH, i32 outW) {
    Resources r;
    const std::string shape = QT::shapeKey(header.h, header.w, header.t, header.o);
    auto& tensors = shapeTensors[shape];
    if (!tensors) tensors = std::make_shared<QT_ShapeTensors>(*modelContext, header);
    r.tensors = tensors;
    const std::string output = QT::outputKey(outH, outW, header.o);
    if (!tmpStates.contains(output))
        tmpStates.put(output, std::make_shared<QT_TmpHostState>(modelContext, header, outH, outW));
    r.tmp = tmpStates.get(output);

    const std::string model = params.modelId + "/";
    const std::string modelsKey = model + shape + output;
    auto loaded = loadedModels.find(modelsKey);
    if (loaded == loadedModels.end()) {
        host->setBusyLoading(call, true);
        try {
            QT::Submodels models;
            for (const std::string& name : params.submodelNames) {
                auto info = submodels.find(model + name);
                if (info == submodels.end())
                    info = submodels.emplace(model + name, QT_SubmodelInfo::read(params.submodelsInfo.at(name))).first;
                const QT::SubmodelLoad load = QT::submodelLoad(name, info->second, params.modelId, header, outH, outW);
                auto& network = networks[model + load.cacheName];
                if (!network) network = modelContext->loadModel(load.file, load.options);
                models[name] = network;
            }
            loaded = loadedModels.emplace(modelsKey, std::move(models)).first;
        } catch (const std::exception& e) {
            host->setBusyLoading(call, false);
            if (dynamic_cast<const ML::Exception*>(&e)) throw;
            ML_THROW(e.what());
        }
        host->setBusyLoading(call, false);
    }
    r.submodels = &loaded->second;
    return r;
}

void QT_Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    std::lock_guard<std::mutex> lock(mutex);
    const QT_ModelParams params = getParams(info);
    if (!params.hasExecShape(h, w))
        ML_THROW("execution shape of " + std::to_string(h) + "x" + std::to_string(w) + " (HxW) not available!");

    const i32 frame = static_cast<i32>(host->getFrame(call));
    const bool antiAliased = host->getIntParam(call, 303, 0) != 0;
    const i32 startFrame = host->getIntParam(call, 304, 0);
    const i32 keyframeCount = host->getIntParam(call, 301, 0);
    if (keyframeCount > QT::kMaxKeyframes)
        ML_THROW("num keyframes must be at most " + std::to_string(QT::kMaxKeyframes) +
                 "! host returned: " + std::to_string(keyframeCount));
    std::vector<i32> keyframeNumbers;
    for (i32 k = 0; k < keyframeCount; ++k) keyframeNumbers.push_back(host->getIntParam(call, 302, k));
    const i32 objects = host->getIntParam(call, 300, 0);
    if (keyframeCount < 1) ML_THROW("num keyframes must be positive! host returned: " + std::to_string(keyframeCount));
    if (objects < 1) ML_THROW("num objects must be positive! host returned: " + std::to_string(objects));
    if (objects > params.objsMax)
        ML_THROW("too many obects! max is " + std::to_string(params.objsMax) + " , host returned " +
                 std::to_string(objects));

    const bool forward = frame >= startFrame;
    const std::string sequence = QT::sequenceKey({h, w, params.modelId, objects, startFrame, keyframeNumbers});
    std::string stateKey = QT::stateKey(sequence, forward);
    QT_StateHeader header;
    header.h = h;
    header.w = w;
    header.o = objects;
    header.t = params.tMax;
    header.p = params.pMax;
    header.memoryEvery = memoryEvery;
    header.antiAliased = antiAliased ? 1 : 0;
    header.startFrame = startFrame;
    header.forward = forward ? 1 : 0;
    header.dataType = static_cast<i32>(dataType);

    // The keyframes first: which of their masks the host has sizes the state.
    std::vector<QT::Keyframe> keyframes;
    std::vector<i32> keyCounts(static_cast<size_t>(objects), 0);
    for (i32 k : keyframeNumbers) {
        QT::Keyframe kf;
        kf.frame = k;
        const u32 ku = static_cast<u32>(k);
        kf.rect = regionOf(host, call, k);
        Ptr<Image> rgb = checkResult(host->getInputImage(call, ku, &kf.rect, ResourceId{0, -1}));
        if (!rgb) ML_THROW("rgb frame required for mask keyframe");
        if (!covers(rgb->getRect(), kf.rect)) ML_THROW("rgb frame for mask keyframe must cover mask size!");
        kf.rgb = makeNewImageView(rgb, kf.rect);
        bool any = false;
        for (i32 o = 0; o < objects; ++o) {
            Ptr<Image> mask = checkResult(host->getInputImage(call, ku, &kf.rect, ResourceId{2, o}));
            if (mask) {
                ++keyCounts[static_cast<size_t>(o)];
                if (!covers(mask->getRect(), kf.rect)) ML_THROW("keyframe mask must cover mask size (from output!)");
                any = true;
                mask = makeNewImageView(mask, kf.rect);
            }
            kf.masks.push_back(mask);
        }
        if (!any) logWarning("No masks returned for keyframe at frame " + std::to_string(k));
        keyframes.push_back(std::move(kf));
    }
    const u64 size = QT::stateBytes(header, keyCounts);

    QT::WalkInput walkIn{frame, startFrame, false, false, 0, 0};
    Ptr<Buffer> maskBuffer = findCached(host, call, QT::maskKey(sequence, frame));
    Ptr<Buffer> oldState;
    if (maskBuffer) {
        walkIn.maskCached = true;
    } else {
        oldState = findCached(host, call, stateKey);
        if (oldState && oldState->getSize() != size) {
            // The keyframes' masks changed since that state was made, and with them its size: the
            // host cannot resize a buffer, so the sequence goes on under a key that names the size.
            stateKey = sizedCacheKey(stateKey, size);
            oldState = findCached(host, call, stateKey);
        }
        if (oldState) {
            try {
                const QT_HostState view(oldState);
                // A header of other settings (the anti-aliasing, say) makes another walk.
                walkIn.stateCached = std::memcmp(view.header, &header, sizeof header) == 0;
                walkIn.framesProcessed = view.getFramesProcessed();
                walkIn.keyframesEncoded = view.getKeyframesEncoded();
            } catch (const ML::Exception& e) {
                // Bytes that are no state of this sequence: started afresh, as if evicted.
                logWarning(e.what());
            }
        }
    }
    QT::WalkPlan plan = QT::planWalk(walkIn);
    if (plan.restart && !prepareOnly) logWarning(QT::restartWarning(frame, plan.expected));

    // One frame of the walk as the host gives it, checked. The render asks for each frame just
    // before computing it and lets its images go when done, so a long walk holds one frame.
    const auto fetch = [&](size_t i) {
        WalkFrame f;
        f.frame = plan.framesToRun[i];
        const u32 fu = static_cast<u32>(f.frame);
        f.rect = regionOf(host, call, f.frame);
        f.rgb = checkResult(host->getInputImage(call, fu, &f.rect, ResourceId{0, -1}));
        if (!f.rgb) ML_THROW("Must provide input color image for frame " + std::to_string(f.frame));
        if (!covers(f.rgb->getRect(), f.rect))
            ML_THROW("Input image rect must cover full output image rect for frame " + std::to_string(f.frame));
        for (i32 o = 0; o < objects; ++o) {
            Ptr<Image> mask = checkResult(host->getOutputImage(call, fu, ResourceId{2, o}));
            if (mask && mask->getChannelFormat() != Image::R) ML_THROW("Mask output must have channel format R!");
            if (mask && !covers(mask->getRect(), f.rect)) ML_THROW("Mask output must cover output rect");
            f.masks.push_back(mask);
        }
        if (i + 1 == plan.framesToRun.size()) {
            f.colorized = checkResult(host->getOutputImage(call, fu, ResourceId{1, -1}));
            if (f.colorized && !covers(f.colorized->getRect(), f.rect))
                ML_THROW("Output colorized rect must cover full output ROI");
        }
        return f;
    };
    if (prepareOnly) {
        // The host learns every image of the walk; none is kept.
        for (size_t i = 0; i < plan.framesToRun.size(); ++i) fetch(i);
        return;
    }

    bool purged = false;
    if (walkIn.stateCached) purged = !findCached(host, call, stateKey);
    bool initialised = false;
    const auto fill = [&](Buffer& b) {
        initState(header, keyCounts, b);
        initialised = true;
    };
    // A replay reads no state: whatever the host holds under the key is left as it is.
    Ptr<Buffer> state = computeCachedAnySize(host, call, stateKey, size, fill);
    bool resized = false;
    if (!plan.computeNothing && state->getSize() != size) {
        // A state of another size came under the key after its look-up: as there, the sequence
        // goes on under the key naming the size, from the start (nothing tells how far that got).
        stateKey = sizedCacheKey(QT::stateKey(sequence, forward), size);
        state = computeCached(host, call, stateKey, size, fill);
        resized = true;
    }
    bool copied = false;
    if (purged && oldState && oldState->getSize() == size) {
        logWarning("State appears to have been purged from compute cache mid-render. Copying previous state buffer to "
                   "current, freshly-initialized state buffer");
        std::memcpy(state->getData(), oldState->getData(), size);
        copied = true;
    }
    bool needInit = plan.needInit && !plan.computeNothing;
    if (!needInit && !plan.computeNothing && (resized || (initialised && !copied))) {
        // The host let the state go between its look-up and now and nothing of it was kept, or put
        // one of another size there: the state in hand is not the one planned on, so the walk
        // starts over.
        logWarning(QT::restartWarning(frame, plan.expected));
        walkIn.stateCached = false;
        plan = QT::planWalk(walkIn);
        needInit = true;
    }
    // A state copied back from the old buffer is that buffer's; a fresh one is initialised already.
    if (needInit && (!initialised || copied)) initState(header, keyCounts, *state);

    std::lock_guard<std::mutex> compute(modelContext->computeMutex);
    if (plan.computeNothing) {
        const WalkFrame f = fetch(0);
        Resources r = acquireResources(host, call, header, params, f.rect.y1 - f.rect.y0, f.rect.x1 - f.rect.x0);
        QT::decodeMasks(*r.tensors, *r.tmp, *r.submodels, static_cast<const u8*>(maskBuffer->getData()),
                        maskBuffer->getSize());
        colorize(*common, *r.tmp, *r.submodels, f);
        deliverMasks(*common, *r.tmp, f);
        return;
    }
    // Masks that are cached need no state; one that is walked on is read here (refused when corrupt).
    QT_HostState view(state);
    if (needInit) {
        const Rect& first = keyframes.front().rect;
        Resources r = acquireResources(host, call, header, params, first.y1 - first.y0, first.x1 - first.x0);
        QT::encodeKeyframes(*common, view, *r.tensors, *r.submodels, keyframes);
    }
    keyframes.clear();  // in memory now
    const size_t count = plan.framesToRun.size();
    for (size_t i = 0; i < count; ++i) {
        if (host->isCancelled(call)) ML_THROW_CANCEL();
        host->setProgress(call, static_cast<float>(i) / static_cast<float>(count));
        const WalkFrame f = fetch(i);
        Resources r = acquireResources(host, call, header, params, f.rect.y1 - f.rect.y0, f.rect.x1 - f.rect.x0);
        QT::propagateFrame(*common, view, *r.tensors, *r.tmp, *r.submodels, plans, f.frame,
                           makeNewImageView(f.rgb, f.rect));
        const u64 length = QT::encodeMasks(*r.tensors, *r.tmp, *r.submodels);
        // A mask already there (of another region's size, say) stays: the cache keeps one per frame.
        computeCachedAnySize(host, call, QT::maskKey(sequence, f.frame), length,
                             [&](Buffer& b) { std::memcpy(b.getData(), r.tmp->rleStream.data(), length); });
        deliverMasks(*common, *r.tmp, f);
        if (i + 1 == count) colorize(*common, *r.tmp, *r.submodels, f);
    }
    host->setProgress(call, 1.0f);
}

}  // namespace ML
