#include "capture/wayland/PipeWireParams.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/buffers.h>
#include <spa/param/format-utils.h>
#include <spa/param/param.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

namespace PipeWireParams {

namespace {

// DRM_FORMAT_MOD_LINEAR from drm_fourcc.h: rows one after the other, as in shared memory.
constexpr uint64_t linearModifier = 0;
// Regions of damage we take per frame; more than this counts as "all changed".
constexpr int damageRegions = 16;

const spa_pod *formatPod(spa_pod_builder &b, int fps, bool dmaBuf)
{
    spa_rectangle defaultSize {1920, 1080};
    spa_rectangle minSize {1, 1};
    spa_rectangle maxSize {8192, 8192};
    // A variable rate (0/1) up to `fps`: the compositor sends a frame when something changed.
    spa_fraction rate {0, 1};
    spa_fraction maxRate {uint32_t(fps), 1};
    spa_fraction minRate {0, 1};
    spa_fraction defaultMaxRate {uint32_t(fps), 1};

    spa_pod_frame frame;
    spa_pod_builder_push_object(&b, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_add(
        &b, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                               SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        0);
    if (dmaBuf) {
        spa_pod_builder_prop(&b, SPA_FORMAT_VIDEO_modifier, SPA_POD_PROP_FLAG_MANDATORY);
        spa_pod_builder_long(&b, int64_t(linearModifier));
    }
    spa_pod_builder_add(
        &b, SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&defaultSize, &minSize, &maxSize),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate), SPA_FORMAT_VIDEO_maxFramerate,
        SPA_POD_CHOICE_RANGE_Fraction(&defaultMaxRate, &minRate, &maxRate), 0);
    return static_cast<const spa_pod *>(spa_pod_builder_pop(&b, &frame));
}

} // namespace

std::vector<const spa_pod *> enumFormats(spa_pod_builder &builder, int fps, bool withDmaBuf)
{
    std::vector<const spa_pod *> pods;
    if (withDmaBuf)
        pods.push_back(formatPod(builder, fps, true));
    pods.push_back(formatPod(builder, fps, false));
    return pods;
}

std::optional<Format> parseFormat(const spa_pod *param)
{
    if (!param)
        return std::nullopt;
    uint32_t mediaType = 0;
    uint32_t mediaSubtype = 0;
    if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 ||
        mediaType != SPA_MEDIA_TYPE_video || mediaSubtype != SPA_MEDIA_SUBTYPE_raw)
        return std::nullopt;
    spa_video_info_raw info {};
    if (spa_format_video_raw_parse(param, &info) < 0)
        return std::nullopt;
    Format format;
    switch (info.format) {
    case SPA_VIDEO_FORMAT_BGRx:
        format.layout = PixelLayout::bgrx;
        break;
    case SPA_VIDEO_FORMAT_BGRA:
        format.layout = PixelLayout::bgra;
        break;
    case SPA_VIDEO_FORMAT_RGBx:
        format.layout = PixelLayout::rgbx;
        break;
    case SPA_VIDEO_FORMAT_RGBA:
        format.layout = PixelLayout::rgba;
        break;
    default:
        return std::nullopt;
    }
    format.width = int(info.size.width);
    format.height = int(info.size.height);
    if (format.width <= 0 || format.height <= 0)
        return std::nullopt;
    if (info.flags & SPA_VIDEO_FLAG_MODIFIER)
        format.modifier = info.modifier;
    return format;
}

std::vector<const spa_pod *> bufferParams(spa_pod_builder &builder, const Format &format)
{
    // Shared memory always; DMA-BUF only for the format that asked for it.
    int dataTypes = (1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd);
    if (format.modifier)
        dataTypes = 1 << SPA_DATA_DmaBuf;
    std::vector<const spa_pod *> pods;
    pods.push_back(static_cast<const spa_pod *>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
        SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
        SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(dataTypes))));
    pods.push_back(static_cast<const spa_pod *>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
        SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header)))));
    const int damageSize = int(sizeof(spa_meta_region)) * damageRegions;
    pods.push_back(static_cast<const spa_pod *>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
        SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size,
        SPA_POD_CHOICE_RANGE_Int(damageSize, int(sizeof(spa_meta_region)), damageSize))));
    return pods;
}

} // namespace PipeWireParams
