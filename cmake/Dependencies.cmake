# Everything comes from the distribution's packages; nothing is downloaded.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GSTREAMER REQUIRED IMPORTED_TARGET
  gstreamer-1.0>=1.22 gstreamer-base-1.0 gstreamer-video-1.0 gstreamer-app-1.0)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(PANGOCAIRO REQUIRED IMPORTED_TARGET pangocairo cairo-png)
find_package(spdlog REQUIRED)

# libyuv ships no pkg-config file.
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)
add_library(libyuv UNKNOWN IMPORTED)
set_target_properties(libyuv PROPERTIES IMPORTED_LOCATION ${LIBYUV_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${LIBYUV_INCLUDE_DIR})

# Only some modules are wanted, and OpenCV's package files belong to the package of them all.
find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
find_library(OPENCV_CORE_LIBRARY opencv_core REQUIRED)
find_library(OPENCV_IMGPROC_LIBRARY opencv_imgproc REQUIRED)
add_library(opencv INTERFACE)
target_include_directories(opencv SYSTEM INTERFACE ${OPENCV_INCLUDE_DIR})
target_link_libraries(opencv INTERFACE ${OPENCV_IMGPROC_LIBRARY} ${OPENCV_CORE_LIBRARY})
# What runs models is for the software elements alone.
find_library(OPENCV_DNN_LIBRARY opencv_dnn REQUIRED)
add_library(opencv_dnn INTERFACE)
target_link_libraries(opencv_dnn INTERFACE ${OPENCV_DNN_LIBRARY} opencv)
