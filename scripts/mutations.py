#!/usr/bin/env python3
"""Mutation check: do the tests catch small faults put into the program?

Each fault of scripts/mutations.txt is applied alone to a copy of the
source tree (build-mutations/src, rebuilt incrementally in
build-mutations/build), the tests that concern it are run, and the fault is
"caught" when at least one of them fails (or the build breaks: that counts
as caught, and is said).  The source tree of the checkout is never changed.
At the end the score is printed: caught / applied.

    python3 scripts/mutations.py            # every fault
    python3 scripts/mutations.py M07 M12    # some of them
    python3 scripts/mutations.py --liste    # the faults, without running
    python3 scripts/mutations.py --matrice  # every test for every fault, and
                                            # which ones caught it

Format of scripts/mutations.txt, one fault per block separated by a blank
line ('#' lines are comments):

    id: M01
    fichier: src/message/utilitaires.cpp
    avant: i + 1 < i_Taille
    apres: i < i_Taille
    tests: Utilitaires|Joker
    quoi: bounded copy one byte too far

"avant" must occur exactly once in the file; a "¶" in "avant" or "apres"
stands for a line end (the next line follows it with its indentation);
"tests" is a ctest regular expression.  Not part of CI: a full run takes
about ten minutes, about an hour with --matrice.  The matrix shows which
tests catch a fault that no other test catches, and which catch none alone.
"""
import os
import re
import shutil
import subprocess
import sys
import time

RACINE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LISTE = os.path.join(RACINE, "scripts", "mutations.txt")
TRAVAIL = os.path.join(RACINE, "build-mutations")
COPIE = os.path.join(TRAVAIL, "arbre")
CONSTRUCTION = os.path.join(TRAVAIL, "build")


def lit_liste():
    """The faults of the list, in order, as dictionaries."""
    fautes, courante = [], {}
    with open(LISTE, encoding="utf-8") as f:
        for ligne in f.read().split("\n") + [""]:
            if ligne.startswith("#"):
                continue
            if not ligne.strip():
                if courante:
                    fautes.append(courante)
                courante = {}
                continue
            cle, _, valeur = ligne.partition(": ")
            courante[cle.strip()] = valeur.replace("\u00b6", "\n")
    for f in fautes:
        for cle in ("id", "fichier", "avant", "apres", "tests", "quoi"):
            if cle not in f:
                sys.exit("faute %s: champ '%s' absent" % (f.get("id", "?"), cle))
    return fautes


def copie_arbre():
    """A copy of the checkout's sources to mutate (the build tree apart)."""
    os.makedirs(TRAVAIL, exist_ok=True)
    for nom in ("src", "tests", "bench", "fuzz", "schema", "scripts", "doc", "installation",
                "debian", "README.md", "CMakeLists.txt"):
        source, cible = os.path.join(RACINE, nom), os.path.join(COPIE, nom)
        if os.path.isdir(source):
            if os.path.isdir(cible):
                shutil.rmtree(cible)
            # Copies dated now: the build of an earlier run must not be
            # taken for up to date.
            # What a package build leaves in debian/ is not source.
            paquet = shutil.ignore_patterns(".debhelper", "debhelper-build-stamp", "tmp", "remise-vorane",
                                            "files", "*.substvars")
            shutil.copytree(source, cible, copy_function=shutil.copy,
                            ignore=paquet if nom == "debian" else None)
        else:
            os.makedirs(COPIE, exist_ok=True)
            shutil.copy(source, cible)


def lance(commande, limite=1800, sortie=None):
    """Runs a command; its exit status (124 on a time-out).  With a list as
    sortie, its standard output is added to it."""
    try:
        r = subprocess.run(commande, stdout=subprocess.PIPE if sortie is not None else subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, timeout=limite, text=True, errors="replace")
        if sortie is not None:
            sortie.append(r.stdout)
        return r.returncode
    except subprocess.TimeoutExpired:
        return 124


def construit():
    return lance(["ninja", "-C", CONSTRUCTION])


def essaie(faute, matrice=False):
    """Applies one fault, builds, runs its tests (every test with matrice),
    restores: the verdict, with matrice followed by the tests that failed."""
    chemin = os.path.join(COPIE, faute["fichier"])
    with open(chemin, encoding="utf-8", errors="surrogateescape") as f:
        texte = f.read()
    if texte.count(faute["avant"]) != 1:
        return "introuvable"
    with open(chemin, "w", encoding="utf-8", errors="surrogateescape") as f:
        f.write(texte.replace(faute["avant"], faute["apres"]))
    try:
        if construit() != 0:
            return "attrapee (ne compile plus)"
        sortie = []
        statut = lance(["ctest", "--test-dir", CONSTRUCTION, "--timeout", "120"] +
                       (["-j16"] if matrice else ["-j2", "-R", faute["tests"]]), sortie=sortie)
        verdict = "attrapee" if statut != 0 else "MANQUEE"
        if matrice:
            # ctest names each failed test as "  7 - Suite.Test (Failed)".
            echecs = re.findall(r"^\s*\d+ - (\S+) \(", sortie[0], re.M)
            verdict += " par: " + " ".join(sorted(echecs))
        return verdict
    finally:
        with open(chemin, "w", encoding="utf-8", errors="surrogateescape") as f:
            f.write(texte)
        # The file's time moves on so that the next build recompiles it.
        os.utime(chemin)


def main():
    fautes = lit_liste()
    choisies = [a for a in sys.argv[1:] if not a.startswith("--")]
    if choisies:
        fautes = [f for f in fautes if f["id"] in choisies]
    if "--liste" in sys.argv:
        for f in fautes:
            print("%-4s %-32s %s" % (f["id"], f["fichier"], f["quoi"]))
        print("%d fautes" % len(fautes))
        return
    copie_arbre()
    lance(["cmake", "-S", COPIE, "-B", CONSTRUCTION, "-G", "Ninja",
           "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DVORANE_BENCH=OFF"])
    if construit() != 0:
        sys.exit("the unmutated tree does not build")
    attrapees, appliquees = 0, 0
    for f in fautes:
        debut = time.time()
        verdict = essaie(f, "--matrice" in sys.argv)
        if verdict != "introuvable":
            appliquees += 1
            attrapees += verdict.startswith("attrapee")
        print("%-4s %-26s %-32s %s (%ds)" % (f["id"], verdict, f["fichier"], f["quoi"],
                                            time.time() - debut), flush=True)
    print("\nscore: %d / %d fautes attrapees" % (attrapees, appliquees))
    construit()


if __name__ == "__main__":
    main()
