# Debian's libopencv-core-dev and libopencv-imgproc-dev ship neither a CMake
# package nor a pkg-config file, so the two modules are located directly and
# wrapped in one imported target, Orvanta::OpenCV.
include(FindPackageHandleStandardArgs)

find_path(OrvantaOpenCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
find_library(OrvantaOpenCV_CORE_LIBRARY opencv_core)
find_library(OrvantaOpenCV_IMGPROC_LIBRARY opencv_imgproc)

find_package_handle_standard_args(OrvantaOpenCV
    REQUIRED_VARS OrvantaOpenCV_INCLUDE_DIR OrvantaOpenCV_CORE_LIBRARY OrvantaOpenCV_IMGPROC_LIBRARY)

if(OrvantaOpenCV_FOUND AND NOT TARGET Orvanta::OpenCV)
    add_library(Orvanta::OpenCV INTERFACE IMPORTED)
    set_target_properties(Orvanta::OpenCV PROPERTIES
        INTERFACE_INCLUDE_DIRECTORIES "${OrvantaOpenCV_INCLUDE_DIR}"
        INTERFACE_LINK_LIBRARIES "${OrvantaOpenCV_IMGPROC_LIBRARY};${OrvantaOpenCV_CORE_LIBRARY}")
endif()
mark_as_advanced(OrvantaOpenCV_INCLUDE_DIR OrvantaOpenCV_CORE_LIBRARY OrvantaOpenCV_IMGPROC_LIBRARY)
