#include "video_properties.h"

#include "vtransform_geometry.h"

namespace velstream::software {

namespace {

constexpr GEnumValue kEngines[] = {{0, "C2D converter", "c2d"},
                                   {1, "OpenGL ES", "gles"},
                                   {2, "FastCV", "fcv"},
                                   {3, "OpenCL", "opencl"},
                                   {0, nullptr, nullptr}};

constexpr GEnumValue kRotations[] = {
    {static_cast<int>(Rotation::none), "No rotation", "none"},
    {static_cast<int>(Rotation::clockwise), "90 degrees clockwise", "90CW"},
    {static_cast<int>(Rotation::counter_clockwise), "90 degrees counter-clockwise", "90CCW"},
    {static_cast<int>(Rotation::half_turn), "180 degrees", "180"},
    {0, nullptr, nullptr}};

} // namespace

GType engine_type()
{
    static const GType type = g_enum_register_static("VelTransformEngine", kEngines);
    return type;
}

GType rotation_type()
{
    static const GType type = g_enum_register_static("VelTransformRotation", kRotations);
    return type;
}

} // namespace velstream::software
