"""Installs kelvane and uses it as others would: install_test.py SOURCE BUILD CXX

The static library comes from the build given. The shared one is built embedded in the consumer's project, for one
instruction set alone, which takes seconds instead of minutes."""
import glob, itertools, json, os, re, shutil, subprocess, sys, tempfile, unittest
from oracle import aggregate

SOURCE, BUILD, CXX = sys.argv[1:]
CONSUMER = os.path.join(SOURCE, "tests", "consumer")
HEADERS = sorted(os.listdir(os.path.join(SOURCE, "include")))
EXPECTED = aggregate(bytes(4096), 4096, 0, 4096).hex() + " derived failed to stat hash file: 2\n"


def run(*command, **environment):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, env=os.environ | environment, check=True).stdout


def find(prefix, name):
    return glob.glob(f"{prefix}/**/{name}", recursive=True)


def public_functions():
    """Class and name of every function that a shared library must show, and of all that it may, by the headers."""
    must, may = set(), set()
    for header in HEADERS:
        with open(os.path.join(SOURCE, "include", header), encoding="utf-8") as file:
            text = re.sub(" *//.*", "", file.read())
        for name, body in re.findall(r"^class KELVANE_EXPORT (\w+)[^{]*{\n(.*?)(?:^private:|^};)", text, re.M | re.S):
            for declaration in re.split(r"[;:{}]\n", body):
                function = re.search(r"(operator\W+|~?\w+)\(", declaration)
                if function and "using" not in declaration:
                    may.add((name, function[1]))
                    if not re.search("= de|= 0|template", declaration):
                        must.add((name, function[1]))
    return must, may


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.path = staticmethod(lambda name: os.path.join(directory.name, name))
        run("cmake", "--install", BUILD, "--prefix", cls.path("first"))
        shutil.move(cls.path("first"), cls.path("static"))  # an installation can be moved
        cls.configure("embedded", f"-DKELVANE_SOURCE={SOURCE}", "-DBUILD_SHARED_LIBS=ON", "-DKELVANE_INSTALL=ON",
                      "-DCMAKE_CXX_FLAGS=-DHWY_COMPILE_ONLY_STATIC")
        run("cmake", "--install", cls.path("embedded"), "--prefix", cls.path("shared"))

    @classmethod
    def configure(cls, name, *options):
        run("cmake", "-S", CONSUMER, "-B", cls.path(name), f"-DCMAKE_CXX_COMPILER={CXX}", *options)
        run("cmake", "--build", cls.path(name))

    def check(self, program, kind="static"):
        """Runs a consumer with a library of the installation."""
        libraries = os.path.dirname(find(self.path(kind), "libkelvane.*")[0])
        self.assertEqual(run(program, self.path("hashes"), LD_LIBRARY_PATH=libraries), EXPECTED)
        self.assertEqual("libkelvane.so.0.1 " in run("ldd", program), kind == "shared")

    def test_embedded_project_builds_the_library_alone(self):
        self.check(self.path("embedded/consumer"), "shared")
        self.check(self.path("embedded/flat_consumer"), "shared")
        built = run("cmake", "--build", self.path("embedded"), "--target", "help")
        self.assertNotRegex(built, "kelvane-hash|kelvane_tests|range_hash|man_page")

    def test_an_embedding_project_decides_on_warnings_and_sanitizers_which_stay_out_of_the_kernel(self):
        sanitizers = "-fsanitize=address,undefined"
        with open(self.path("sanitizers.cmake"), "w") as file:
            file.write(f"add_compile_options({sanitizers})")
        for way in f"FLAGS={sanitizers}", "FLAGS= -DCMAKE_PROJECT_INCLUDE=" + self.path("sanitizers.cmake"):
            run("cmake", "-S", CONSUMER, "-B", self.path("sanitized"), f"-DCMAKE_CXX_COMPILER={CXX}",
                f"-DKELVANE_SOURCE={SOURCE}", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *f"-DCMAKE_CXX_{way}".split())
            with open(self.path("sanitized/compile_commands.json")) as file:
                commands = {os.path.basename(entry["file"]): entry["command"] for entry in json.load(file)}
            self.assertNotRegex(" ".join(commands.values()), " -W")
            for name, last in (("main.cpp", sanitizers), ("Blake2sp.cpp", "-fno-sanitize=all"),
                               ("Blake2spStreams.cpp", "-fno-sanitize=all")):
                self.assertEqual(re.findall(r"-f(?:no-)?sanitize=\S+", commands[name])[-1], last)

    def test_find_package_and_pkg_config(self):
        for kind in "static", "shared":
            self.configure(f"by_{kind}", f"-DCMAKE_PREFIX_PATH={self.path(kind)}")
            self.check(self.path(f"by_{kind}/consumer"), kind)
            place = os.path.dirname(find(self.path(kind), "kelvane.pc")[0])
            flags = run("pkg-config", "--cflags", "--libs", "kelvane", PKG_CONFIG_PATH=place)
            run(CXX, f"{CONSUMER}/main.cpp", "-std=c++17", "-o", self.path(kind + "_consumer"), *flags.split(),
                f"-I{CONSUMER}/own")
            self.check(self.path(kind + "_consumer"), kind)

    def test_headers_compile_alone(self):
        flags = "-fsyntax-only -Wall -Wextra -Wconversion -Wpedantic -Werror -x c++ /dev/null".split()
        for standard, header in itertools.product(("c++17", "c++20"), HEADERS):
            run(CXX, f"-std={standard}", f"-I{self.path('static')}/include", "-include", f"kelvane/{header}", *flags)

    def test_shared_library_shows_what_is_public(self):
        library, = find(self.path("shared"), "libkelvane.so")
        names = [line.split(maxsplit=2)[2] for line in run("nm", "-DC", "--defined-only", library).splitlines()]
        types = {f"{part} for kelvane::{name}" for part in ("vtable", "typeinfo", "typeinfo name")
                 for name in ("IHashFunction", "BlakeHash")}
        types |= {f"{part} for kelvane::HashFileFinding" for part in ("typeinfo", "typeinfo name")}
        self.assertLessEqual(types, set(names))
        shown = {re.match(r"kelvane::(\w+)::(.*?)\(", name).groups() for name in names
                 if not re.match(r"(vtable|typeinfo|typeinfo name) for kelvane::(I?HashF|BlakeH)\w+\b", name)}
        must, may = public_functions()
        self.assertGreater(len(must), 30)
        self.assertEqual((must - shown, shown - may), (set(), set()))

    def completions(self, *words):
        ask = f"COMP_WORDS=({' '.join(words)}); COMP_CWORD={len(words) - 1}; _kelvane_hash; echo ${{COMPREPLY[@]}}"
        return run("bash", "-c", f". {self.path('static')}/share/*/completions/kelvane-hash; {ask}").split()

    def test_man_page_and_completion_know_every_option(self):
        program, = find(self.path("static"), "bin/kelvane-hash")
        page = run("zcat", find(self.path("static"), "kelvane-hash.1.gz")[0])
        page = re.sub(r"\\f.|\\,|\\/", "", page).replace(r"\-", "-")
        commands = re.findall(r"^  (\w+) ", run(program, "--help").partition("Subcommands:")[2], re.M)
        self.assertGreater(len(commands), 5)
        self.assertEqual(self.completions(program, "''"), commands)
        for command in commands:
            text = run(program, command, "--help")
            self.assertIn("Example:\n  kelvane-hash " + command, text)
            options = re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.M)
            self.assertEqual(self.completions(program, command, "--"), options)
            section = re.search(rf'^\.SH "KELVANE-HASH {command.upper()}"\n(.*?)(?=^\.SH|\Z)', page, re.M | re.S)[1]
            for option in options:
                self.assertRegex(section, rf"(?m)(^|,){option}\b")
        with open(os.path.join(SOURCE, "docs", "program.md"), encoding="utf-8") as file:
            sections = re.findall("^## (.*)\n", file.read(), re.M)
        self.assertGreater(len(sections), 5)
        self.assertEqual(re.findall(r"^\.SH\n(.*)", page, re.M), [title.upper() for title in sections])


unittest.main(argv=sys.argv[:1])
