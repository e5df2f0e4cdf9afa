# The Debian package of the lab: what is in it, and that it works where it is only unpacked.
import os
import subprocess
import tempfile
import unittest

BIN = os.environ["STEWARDRY_BIN"]
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


class Package(unittest.TestCase):
    def test_the_unpacked_package_has_its_files_and_shows_the_demo(self):
        with tempfile.TemporaryDirectory() as folder:
            made = [os.path.join(folder, "1"), os.path.join(folder, "2")]
            for out in made:
                subprocess.run(["cpack", "-G", "DEB", "-B", out], cwd=os.path.dirname(BIN),
                               check=True, capture_output=True,
                               env={**os.environ, "SOURCE_DATE_EPOCH": "1763942400"})
            debs = [os.path.join(out, "stewardry-lab_1.0.0.533_amd64.deb") for out in made]
            with open(debs[0], "rb") as one, open(debs[1], "rb") as other:
                self.assertTrue(one.read() == other.read(), "two builds are the same bytes")
            tree = os.path.join(folder, "tree")
            subprocess.run(["dpkg-deb", "-x", debs[0], tree], check=True)
            found = sorted(os.path.relpath(os.path.join(at, name), tree)
                           for at, _, names in os.walk(tree) for name in names)
            with open(os.path.join(SOURCE, "packaging", "debian", "contents.txt")) as table:
                self.assertEqual(found, sorted(table.read().split()))
            environment = {k: v for k, v in os.environ.items() if not k.startswith("STEWARDRY_")}
            demo = subprocess.run([os.path.join(tree, "usr", "bin", "stewardry-lab"), "demo"],
                                  capture_output=True, text=True, timeout=120, env=environment)
            self.assertEqual(demo.returncode, 0, demo.stdout + demo.stderr)
            self.assertIn("Every answer was right.", demo.stdout)


if __name__ == "__main__":
    unittest.main()
