SUMMARY = "Cloud-registration handler of the appliance's cloud daemon"
LICENSE = "CLOSED"

# The maker's headers and libcvutils, and the recipe that installs them.
CV_HOST_INCLUDE_DIR ?= "${STAGING_INCDIR}"
CV_CVUTILS_LIBRARY ?= "${STAGING_LIBDIR}/libcvutils.so"
CV_CVUTILS_RECIPE ?= "libcvutils"

inherit cmake pkgconfig externalsrc

EXTERNALSRC = "${@os.path.normpath('${THISDIR}/../../../..')}"
EXTERNALSRC_SYMLINKS = ""

DEPENDS = "jansson ${CV_CVUTILS_RECIPE}"

EXTRA_OECMAKE = "\
    -DBUILD_TESTING=OFF \
    -DCV_BUILD_SANDBOX=OFF \
    -DCV_HOST_INCLUDE_DIR=${CV_HOST_INCLUDE_DIR} \
    -DCV_CVUTILS_LIBRARY=${CV_CVUTILS_LIBRARY} \
"

# The headers, CMake and pkg-config files go to ${PN}-dev by themselves.
FILES:${PN} = "${libdir}/cvcloudd/handlers"
