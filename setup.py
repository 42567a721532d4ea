"""Wheel build: CMake builds the library and the module, setuptools packs them.

`pip wheel --no-deps --no-build-isolation .` (what `make wheel` runs) calls
this through setuptools. The library is bundled next to the module, which
finds it through its $ORIGIN run path. Environment:
  PA_WHEEL_BUILD_DIR  where CMake and setuptools build (default build-wheel)
  PA_PREBUILT_DIR     an existing CMake build tree with the module: it is
                      installed into the wheel instead of building again
"""
import glob
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.path.abspath(os.environ.get("PA_WHEEL_BUILD_DIR", os.path.join(HERE, "build-wheel")))
os.makedirs(BUILD, exist_ok=True)


def run(*cmd):
    print("+", " ".join(cmd), flush=True)
    subprocess.check_call(cmd)


class CMakeBuild(build_ext):
    """Builds the module with CMake and copies it and the library into the package."""

    def build_extension(self, ext):
        tree = os.environ.get("PA_PREBUILT_DIR")
        if not tree:
            tree = os.path.join(BUILD, "cmake")
            run("cmake", "-S", HERE, "-B", tree, "-DCMAKE_BUILD_TYPE=Release", f"-DPython3_EXECUTABLE={sys.executable}",
                "-DPA_BUILD_PYTHON=ON", "-DPA_PYTHON_REQUIRED=ON", "-DPA_BUILD_TESTS=OFF", "-DPA_BUILD_BENCHMARKS=OFF",
                "-DPA_BUILD_EXAMPLES=OFF")
            run("cmake", "--build", tree, "--target", "pa_python", "-j", os.environ.get("PA_WHEEL_JOBS", "2"))
        stage = os.path.join(BUILD, "stage")
        shutil.rmtree(stage, ignore_errors=True)
        # The module's install step sets its run path to $ORIGIN (and the prefix's
        # library directory); the library itself is taken from the build tree.
        run("cmake", "--install", tree, "--prefix", stage, "--component", "python")
        module = glob.glob(os.path.join(stage, "**", "profile_analysis", "_core*.so"), recursive=True)
        library = glob.glob(os.path.join(tree, "libprofile_analysis.so.*"))
        if len(module) != 1 or not library:
            raise RuntimeError(f"no module under {stage} or no library in {tree}")
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copy2(module[0], target)
        soname = min(library, key=len)  # libprofile_analysis.so.1, the name the module asks for
        shutil.copy2(os.path.realpath(soname), os.path.join(os.path.dirname(target), os.path.basename(soname)))


setup(
    ext_modules=[Extension("profile_analysis._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": BUILD}, "egg_info": {"egg_base": BUILD}},
    zip_safe=False,
)
