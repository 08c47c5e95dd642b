#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The bill of materials of a release: spdx.py FOLDER ARCHIVE SECONDS PACKAGE... prints it as SPDX 2.3 JSON.

FOLDER is what ARCHIVE unpacks to, SECONDS the time of its commit, each PACKAGE a Debian package that was
built of it. The same release gives the same bytes. spdx.py --check FOLDER FILE holds what FILE says of the
files against what the tool reuse finds in FOLDER by itself.
"""
import hashlib
import json
import re
import subprocess
import sys
import uuid
from datetime import datetime, timezone
from pathlib import Path

LICENCE, COPYRIGHT = "Apache-2.0", "2026 libqor_bus maintainers"


def checksums(data, *algorithms):
    return [{"algorithm": a, "checksumValue": hashlib.new(a.lower(), data).hexdigest()} for a in algorithms]


def identifier(kind, name):
    """What the document calls a thing; the letters and digits that are allowed, and a sum for the rest."""
    return f"SPDXRef-{kind}-{re.sub('[^A-Za-z0-9.-]', '-', name)}-{hashlib.sha256(name.encode()).hexdigest()[:8]}"


def files(folder):
    return sorted(p for p in folder.rglob("*") if p.is_file() and not p.is_symlink())


def file_entry(folder, path):
    name, data = str(path.relative_to(folder)), path.read_bytes()
    return {
        "fileName": f"./{name}", "SPDXID": identifier("File", name), "checksums": checksums(data, "SHA1", "SHA256"),
        "licenseConcluded": LICENCE, "licenseInfoInFiles": [LICENCE], "copyrightText": COPYRIGHT,
    }


def package_entry(path, name, version):
    return {
        "name": name, "SPDXID": identifier("Package", path.name), "versionInfo": version,
        "packageFileName": path.name, "checksums": checksums(path.read_bytes(), "SHA256"),
        "supplier": "NOASSERTION", "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
        "licenseConcluded": LICENCE, "licenseDeclared": LICENCE, "copyrightText": COPYRIGHT,
    }


def field(package, name):
    return subprocess.run(["dpkg-deb", "-f", package, name], text=True, check=True, capture_output=True).stdout.strip()


def source(folder, archive, entries):
    """The archive, with the sum over its files' sums by which the form wants it known."""
    name, version = folder.name.rsplit("-", 1)
    sums = sorted(e["checksums"][0]["checksumValue"] for e in entries)
    return package_entry(archive, name, version) | {
        "filesAnalyzed": True, "primaryPackagePurpose": "SOURCE", "licenseInfoFromFiles": [LICENCE],
        "packageVerificationCode": {"packageVerificationCodeValue": hashlib.sha1("".join(sums).encode()).hexdigest()},
        "hasFiles": [e["SPDXID"] for e in entries],
    }


def foreign(packages):
    """What the packages depend on that is not among them: of that, the name is known and no more."""
    ours = {field(p, "Package") for p in packages}
    for package in packages:
        for alternative in filter(None, field(package, "Depends").split(",")):
            name = re.match(r"\s*([\w.+-]+)", alternative)[1]
            if name not in ours:
                yield package, name


def document(folder, archive, seconds, packages):
    entries = [file_entry(folder, p) for p in files(folder)]
    whole = source(folder, archive, entries)
    binaries = [package_entry(p, field(p, "Package"), field(p, "Version")) for p in packages]
    needs = sorted(set(foreign(packages)))
    others = [{
        "name": n, "SPDXID": identifier("Needed", n), "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
        "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION",
    } for n in sorted({n for _, n in needs})]
    relations = [("SPDXRef-DOCUMENT", "DESCRIBES", p["SPDXID"]) for p in [whole, *binaries]]
    relations += [(p["SPDXID"], "GENERATED_FROM", whole["SPDXID"]) for p in binaries]
    relations += [(identifier("Package", p.name), "DEPENDS_ON", identifier("Needed", n)) for p, n in needs]
    relations += [(whole["SPDXID"], "CONTAINS", e["SPDXID"]) for e in entries]
    known = "".join(c["checksumValue"] for p in [whole, *binaries] for c in p["checksums"])
    return {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": folder.name,
        "documentNamespace": uuid.uuid5(uuid.NAMESPACE_OID, known).urn,
        "creationInfo": {"created": datetime.fromtimestamp(seconds, timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
                         "creators": ["Tool: libqor_bus-release"]},
        "packages": [whole, *binaries, *others], "files": entries,
        "relationships": [dict(zip(("spdxElementId", "relationshipType", "relatedSpdxElement"), r)) for r in relations],
    }


def differences(folder, page):
    """Where the document and what reuse says do not agree; reuse leaves licences, its own file and empty ones out."""
    said = {f["fileName"]: f["checksums"][0]["checksumValue"] for f in page["files"]}
    report = subprocess.run(["reuse", "--root", folder, "spdx"], text=True, check=True, capture_output=True).stdout
    found = re.findall(r"^FileName: (.*)\nSPDXID: .*\nFileChecksum: SHA1: (\w+)\n.*\nLicenseInfoInFile: (.*)$", report, re.M)
    for name, checksum, licence in found:
        if said.pop(name, None) != checksum or licence != LICENCE:
            yield f"{name}: {checksum}, {licence} for reuse"
    for name in said:
        if not name.startswith(("./LICENSE", "./.reuse/")) and (folder / name).stat().st_size > 0:
            yield f"{name}: reuse does not know it"
    names = [e["SPDXID"] for e in page["files"] + page["packages"]] + [page["SPDXID"]]
    if len(names) != len(set(names)):
        yield "two things of one name"
    for relation in page["relationships"]:
        if not {relation["spdxElementId"], relation["relatedSpdxElement"]} <= set(names):
            yield f"{relation}: of what is not there"


def main(arguments):
    if arguments[0] == "--check":
        wrong = list(differences(Path(arguments[1]), json.loads(Path(arguments[2]).read_text())))
        print("\n".join(wrong) or f"{arguments[2]}: reuse finds the same")
        return len(wrong) > 0
    folder, archive, seconds, *packages = arguments
    print(json.dumps(document(Path(folder), Path(archive), int(seconds), sorted(map(Path, packages))), indent=1))
    return 0


sys.exit(main(sys.argv[1:]))
