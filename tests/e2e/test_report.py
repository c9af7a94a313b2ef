"""tools/kep-report: one self-contained HTML page per analysis."""
import base64
import io
import re
import subprocess
import sys
from html.parser import HTMLParser

import pytest

from conftest import SOURCE

import nibabel as nib
import numpy as np

plt = pytest.importorskip("matplotlib.image")
multipletests = pytest.importorskip("statsmodels.stats.multitest").multipletests
VOID = {"meta", "img", "br", "hr", "link", "input"}


class Page(HTMLParser):
    """Checks that every element is closed in order; keeps images and sections."""

    def __init__(self):
        super().__init__()
        self.open, self.images, self.sections, self.errors = [], [], [], []

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        if tag == "img":
            self.images.append((attrs.get("src", ""), self.sections[-1][0] if self.sections else None))
            if self.sections:
                self.sections[-1][1] += 1
        if tag == "h2":
            self.sections.append([attrs.get("data-condition"), 0])
        if tag not in VOID:
            self.open.append(tag)

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.errors.append(tag)


def test_report_of_an_analysis_parses_embeds_its_pictures_and_covers_every_condition(kep):
    subprocess.run([sys.executable, str(SOURCE / "examples" / "make_study.py"), str(kep.dir), "12", "12", "6",
                    "30"], check=True, capture_output=True)
    r = kep.script("read-GLM study.glm\naverage mean glm\nwrite-float mean.nii mean\n"
                   "GLM-write-design design.tsv\nsmooth-3d 5 glm\nGLM-fit-events effects\n"
                   "write-float effects.nii effects\nGLM-map-conditions maps\nwrite-float maps.nii maps\n"
                   "clusters 3 4 blobs maps>19\nGLM-histogram\n", name="analyse.com")
    assert "Fatal" not in r.stderr, r
    kep.path("analysis.log").write_text(r.stdout)
    p = subprocess.run([str(SOURCE / "tools" / "kep-report"), str(kep.dir), "-o", str(kep.dir / "r.html")],
                       capture_output=True, text=True)
    assert p.returncode == 0, p.stderr
    page = Page()
    page.feed(kep.path("r.html").read_text())
    page.close()
    assert page.errors == [] and page.open == []
    for src, _ in page.images:
        assert src.startswith("data:image/png;base64,")
        picture = plt.imread(io.BytesIO(base64.b64decode(src.split(",", 1)[1])), format="png")
        assert picture.ndim == 3 and min(picture.shape[:2]) > 50
    conditions = [s for s, _ in page.sections if s is not None]
    assert conditions == ["1", "2", "3", "1-2"]
    assert all(count >= 1 for s, count in page.sections if s is not None)
    text = kep.path("r.html").read_text()
    methods = text.split('class="methods">')[1]
    assert "2 runs of 30 images each" in methods and "5 mm FWHM" in methods
    # Condition 1-2: the FDR count of an independent Benjamini-Hochberg over the head's fitted voxels, and the cluster
    # table as kep wrote it.
    section = text.split('data-condition="1-2"')[1]
    maps = np.asanyarray(nib.load(kep.path("maps.nii")).dataobj)
    mean = np.asanyarray(nib.load(kep.path("mean.nii")).dataobj).reshape(maps.shape[:3])
    tested = (maps[..., 16] > 0) & (mean != 0)
    reject = multipletests(maps[..., 18][tested], 0.05, "fdr_bh")[0]
    assert f'<span class="fdr">{reject.sum()}</span> of {tested.sum()} voxels' in section
    rows = [line.split() for line in kep.path("blobs.clusters").read_text().splitlines() if line[0] != "#"]
    assert rows
    shown = re.findall(r"<tr>((?:<td>[^<]*</td>)+)</tr>", section.split("blobs.clusters")[1])[:len(rows)]
    np.testing.assert_allclose([[float(v) for v in re.findall(r"<td>([^<]*)</td>", tr)] for tr in shown],
                               np.array(rows, dtype=float), rtol=1e-5)
    # The p histogram shows the bins kep wrote to hist.dat, and the conditions' voxel counts from the log add up to the
    # pooled total.
    hist = np.loadtxt(kep.path("hist.dat"), skiprows=1)
    section = text.split('id="histogram"')[1]
    shown = np.array(re.findall(r"<tr><td>([^<]*)</td><td>([^<]*)</td><td>([^<]*)</td></tr>",
                                section.split('class="phist"')[1]), dtype=float)
    np.testing.assert_allclose(shown[:, :2].mean(axis=1), hist[:, 0], atol=1e-9)
    np.testing.assert_array_equal(shown[:, 2], hist[:, 1])
    voxels = re.findall(r"<tr><td>([^<]*)</td><td>(\d+)</td>", section.split('class="phist"')[0])
    assert [c for c, _ in voxels] == conditions
    assert sum(int(n) for _, n in voxels) == hist[:, 1].sum() > 0
