# Both readers side by side on the markings of one work folder: truth.tsv
# (file, family, grade, text, our text, our ms), tess_<family>_<grade>.txt
# (tesseract's pages) and times.txt (wall time of each tesseract batch).
import sys, collections
work = sys.argv[1]
def edit(a, b):
    prev = list(range(len(b) + 1))
    for i, ca in enumerate(a, 1):
        cur = [i]
        for j, cb in enumerate(b, 1):
            cur.append(min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (ca != cb)))
        prev = cur
    return prev[-1]
rows = collections.defaultdict(list)
for line in open(f"{work}/truth.tsv"):
    name, fam, grade, truth, ours, ms = line.rstrip("\n").split("\t")
    rows[(fam, grade)].append((truth, ours, float(ms)))
times = {}
for line in open(f"{work}/times.txt"):
    fam, grade, s, e = line.split()
    times[(fam, grade)] = float(e) - float(s)
print(f"{'family':10} {'grade':9} {'ours_char%':>10} {'ours_mark%':>10} {'ours_ms':>8} "
      f"{'tess_char%':>10} {'tess_mark%':>10} {'tess_ms':>8} {'speedup':>8}")
for (fam, grade), items in rows.items():
    pages = open(f"{work}/tess_{fam}_{grade}.txt", encoding="utf-8", errors="replace").read().split("\f")
    tess = [p.strip().replace(" ", "").replace("\n", "") for p in pages][: len(items)]
    tess += [""] * (len(items) - len(tess))
    chars = sum(len(t) for t, _, _ in items)
    ours_err = sum(min(edit(t, o), len(t)) for t, o, _ in items)
    tess_err = sum(min(edit(t, x), len(t)) for (t, _, _), x in zip(items, tess))
    ours_ms = sum(ms for _, _, ms in items) / len(items)
    tess_ms = 1000.0 * times[(fam, grade)] / len(items)
    print(f"{fam:10} {grade:9} {100*(chars-ours_err)/chars:10.2f} "
          f"{100*sum(t==o for t,o,_ in items)/len(items):10.1f} {ours_ms:8.2f} "
          f"{100*(chars-tess_err)/chars:10.2f} "
          f"{100*sum(t==x for (t,_,_),x in zip(items,tess))/len(items):10.1f} {tess_ms:8.2f} "
          f"{tess_ms/ours_ms:8.1f}")
