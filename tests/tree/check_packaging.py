#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The files below packaging against the tree: check_packaging.py ROOT BUILD CMAKE CHECK.

CHECK is one of the functions below; each yields its complaints. Where a build system is not at
hand, a few lines stand in for it: they expand what it would expand, and run what it would run.
"""
import hashlib
import os
import re
import subprocess
import sys
import tempfile
from email.utils import parsedate_to_datetime
from fnmatch import fnmatch
from pathlib import Path

ROOT, BUILD, CMAKE = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]
PACKAGING = ROOT / "packaging"
OPENWRT = PACKAGING / "openwrt/libqor-bus"
RECIPE = next(PACKAGING.glob("yocto/libqor-bus_*.bb"))
SCRATCH = tempfile.TemporaryDirectory()
BUILDROOT = Path(SCRATCH.name) / "tree/packaging/buildroot"  # make takes no path with spaces
BUILDROOT.parents[1].symlink_to(ROOT)


def run(*command, text="", **variables):
    """What a command prints, the text being its input; it must succeed."""
    done = subprocess.run([str(c) for c in command], input=text, text=True, check=False,
                          stdout=subprocess.PIPE, env=os.environ | {k: str(v) for k, v in variables.items()})
    if done.returncode != 0:
        sys.exit(f"{command[0]} failed:\n{done.stdout}")
    return done.stdout


def installed():
    """A fresh install below SCRATCH, and the names of its files without the headers' own."""
    root = Path(SCRATCH.name) / "root"
    run(CMAKE, "--install", BUILD, "--prefix", "/usr", DESTDIR=root)
    return root, sorted(str(p.relative_to(root)) for p in root.rglob("*") if not p.is_dir())


def buildroot(*names):
    """The package's variables as make expands them, external.mk included."""
    lines = "".join(f"$(info $({n}))\n" for n in names)
    makefile = f"define cmake-package\nendef\ninclude {BUILDROOT}/external.mk\n{lines}all: ;\n"
    return run("make", "-sf", "-", text=makefile, BR2_EXTERNAL_QOR_BUS_PATH=BUILDROOT).splitlines()


def recipe():
    """The variables that the recipe sets, and the classes that it inherits."""
    values, classes = {}, []
    for line in RECIPE.read_text().splitlines():
        if match := re.fullmatch(r'([A-Z][A-Z_]*) \??= "(.*)"', line):
            values[match[1]] = match[2]
        elif line.startswith("inherit "):
            classes += line.split()[1:]
        elif line and not line.startswith("#"):
            sys.exit(f"{RECIPE}: not understood: {line}")
    return values, classes


def version():
    """Every version is that of project() in CMakeLists.txt."""
    wanted = re.search(r"project\(qor_bus VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
    major, minor, patch = wanted.split(".")
    for path, pattern, expected in [
        ("include/qor_api.h", r"^#define QOR_VERSION_MAJOR (\d+)$", major),
        ("include/qor_api.h", r"^#define QOR_VERSION_MINOR (\d+)$", minor),
        ("include/qor_api.h", r"^#define QOR_VERSION_PATCH (\d+)$", patch),
        ("CHANGELOG.md", r"^## ([\d.]+)", wanted),
        ("SECURITY.md", r"^\| ([\d.]+)\.x \| yes", f"{major}.{minor}"),
        ("packaging/debian/changelog", r"^libqor-bus \(([\d.]+)\)", wanted),
        ("packaging/debian/control", r"^Package: libqor-bus(\d+)$", major),
        ("packaging/openwrt/libqor-bus/Makefile", r"^PKG_VERSION:=(.*)$", wanted),
        ("packaging/openwrt/libqor-bus/Makefile", r"ABI_VERSION:=(.*)$", major),
    ]:
        found = re.search(pattern, (ROOT / path).read_text(), re.M)
        if not found or found[1] != expected:
            yield f"{path}: not {expected}: {found and found[0]}"
    if RECIPE.name != f"libqor-bus_{wanted}.bb":
        yield f"{RECIPE}: not {wanted}"
    if buildroot("LIBQOR_BUS_VERSION") != [wanted]:
        yield f"buildroot: not {wanted}"


def release():
    """The newest heading has a day, which is the Debian package's; the archive and a tag have the version."""
    wanted = re.search(r"project\(qor_bus VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
    heading = re.search(r"^## .*$", (ROOT / "CHANGELOG.md").read_text(), re.M)[0]
    entry = (PACKAGING / "debian/changelog").read_text()
    day = re.fullmatch(rf"## {re.escape(wanted)} \((\d{{4}}-\d\d-\d\d)\)", heading)
    trailer = re.search(r"^ -- .*>  (.*)$", entry, re.M)[1]
    if not day or parsedate_to_datetime(trailer).date().isoformat() != day[1]:
        yield f"{heading} in CHANGELOG.md, {trailer} in debian/changelog: not a version and one day"
    name = run("bash", "-c", f"cd '{ROOT}' && . tools/dev/release.sh && release_name").strip()
    if name != f"libqor_bus-{wanted}":
        yield f"the archive is called {name}"
    if not (ROOT / ".git").exists():
        print("no version control here, and so no tag")
        return
    for tag in run("git", "-C", ROOT, "tag", "--points-at", "HEAD").split():
        if re.match(r"v?\d", tag) and tag != f"v{wanted}":
            yield f"tag {tag}: not v{wanted}"


def licence():
    """The checksums are those of LICENSE, which LICENSES repeats."""
    text = (ROOT / "LICENSE").read_bytes()
    if (ROOT / "LICENSES/Apache-2.0.txt").read_bytes() != text:
        yield "LICENSES/Apache-2.0.txt: not LICENSE"
    if recipe()[0].get("LIC_FILES_CHKSUM") != f"file://LICENSE;md5={hashlib.md5(text).hexdigest()}":
        yield f"{RECIPE}: LIC_FILES_CHKSUM is not that of LICENSE"
    line = f"sha256  {hashlib.sha256(text).hexdigest()}  LICENSE"
    if line not in (BUILDROOT / "package/libqor-bus/libqor-bus.hash").read_text().splitlines():
        yield f"buildroot: the hash of LICENSE is not: {line}"


def debian():
    """Each file of an install goes into one package; the guides and examples are there."""
    patterns = [line for p in PACKAGING.glob("debian/*.install") for line in p.read_text().split()]
    patterns = [p.replace("usr/lib/*/", "usr/lib/") for p in patterns]
    for name in installed()[1]:
        takers = [p for p in patterns if fnmatch(name, p) or name.startswith(p + "/")]
        if len(takers) != 1:
            yield f"{name}: taken by {takers or 'no package'}"
    for page in ("docs", "examples"):
        for pattern in (PACKAGING / f"debian/libqor-bus-dev.{page}").read_text().split():
            if not any(ROOT.glob(pattern)):
                yield f"debian/libqor-bus-dev.{page}: there is no {pattern}"


def yocto():
    """The recipe finds the tree; the packages that every recipe has by default take all files."""
    values, classes = recipe()
    source = Path(values["EXTERNALSRC"].replace("${THISDIR}", str(RECIPE.parent)))
    if source.resolve() != ROOT.resolve() or classes != ["cmake", "externalsrc"]:
        yield f"{RECIPE}: does not build {ROOT} with CMake"
    default = ["usr/lib/lib*.so.*", "usr/include/*", "usr/lib/lib*.so", "usr/lib/cmake/*",
               "usr/lib/pkgconfig/*", "usr/lib/*.a", "usr/share/man/*"]
    for name in installed()[1]:
        if not any(fnmatch(name, p) for p in default):
            yield f"{RECIPE}: no package takes {name}"


def buildroot_tree():
    """The package finds the tree; its menu entry can be chosen just with the right toolchain."""
    source, method, licence_file = buildroot(
        "LIBQOR_BUS_SITE", "LIBQOR_BUS_SITE_METHOD", "LIBQOR_BUS_LICENSE_FILES")
    if Path(source).resolve() != ROOT.resolve() or method != "local" or not (ROOT / licence_file).is_file():
        yield f"buildroot: does not build {ROOT}: {source}, {method}, {licence_file}"
    if "name: QOR_BUS\n" not in (BUILDROOT / "external.desc").read_text():
        yield "buildroot: external.desc does not name QOR_BUS"
    try:
        import kconfiglib
    except ImportError:
        print("Config.in is not parsed: python3-kconfiglib is missing")
        return
    os.environ |= {"BR2_EXTERNAL_QOR_BUS_PATH": str(BUILDROOT), "KCONFIG_WARN_UNDEF": "y"}
    toolchain = {"BR2_INSTALL_LIBSTDCPP": "y", "BR2_TOOLCHAIN_HAS_THREADS_NPTL": "y", "BR2_STATIC_LIBS": "n"}
    for changed in [None, *toolchain]:
        menu = Path(SCRATCH.name) / "Config.in"
        values = {k: "yn"[v == "y"] if k == changed else v for k, v in toolchain.items()}
        menu.write_text("".join(f"config {k}\n\tbool\n\tdefault {v}\n" for k, v in values.items())
                        + 'source "$BR2_EXTERNAL_QOR_BUS_PATH/Config.in"\n')
        kconfig = kconfiglib.Kconfig(str(menu), warn_to_stderr=False)
        yield from kconfig.warnings
        if (kconfig.syms["BR2_PACKAGE_LIBQOR_BUS"].visibility > 0) != (changed is None):
            yield f"buildroot: wrong choice with {values}"


def openwrt():
    """What the package copies configures by itself; what it installs is the library alone."""
    scratch = Path(SCRATCH.name)
    root, names = installed()
    (scratch / "rules.mk").write_text("INSTALL_DIR:=install -d -m0755\nCP:=cp -fpR\n")
    (scratch / "cmake.mk").write_text("")
    (scratch / "package.mk").write_text("define BuildPackage\nall:\n\t$(call Build/Prepare)\n"
                                        f"\t$(call Package/$(1)/install,{scratch}/target)\nendef\n")
    run("make", "-sC", OPENWRT, f"TOPDIR={scratch}", f"INCLUDE_DIR={scratch}",
        f"PKG_BUILD_DIR={scratch}/source", f"PKG_INSTALL_DIR={root}")
    run(CMAKE, "-S", scratch / "source", "-B", scratch / "build")
    target = sorted(str(p.relative_to(scratch / "target")) for p in (scratch / "target").rglob("*.*"))
    if target != [n for n in names if ".so." in n] or not target:
        yield f"openwrt: installs {target}"


complaints = list(globals()[sys.argv[4]]())
print("\n".join(complaints) or "nothing to complain about")
sys.exit(len(complaints) > 0)
