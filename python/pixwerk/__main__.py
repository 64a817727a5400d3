"""python3 -m pixwerk run CHAIN -o OUT [--workers N | --scheduler ADDRESS]: a chain written
here, or through a Dask cluster of N local worker processes or at a scheduler's address."""

import argparse
import sys

from . import _chain
from ._pixwerk import PixwerkError


def _progress(quiet):
    """GDAL's progress on standard error: 0...10...20...100 - done."""
    shown = [-1]

    def show(fraction):
        if quiet:
            return True
        tenth = min(10, int(fraction * 10 + 1e-9))
        while shown[0] < tenth:
            shown[0] += 1
            sys.stderr.write(f"{shown[0] * 10}" + (" - done.\n" if shown[0] == 10 else "..."))
        sys.stderr.flush()
        return True
    return show


def run(args):
    variables = {}
    for pair in args.set:
        name, eq, value = pair.partition("=")
        if not eq or not name:
            raise SystemExit(f"pixwerk: --set needs NAME=VALUE, not '{pair}'")
        variables[name] = value
    chain = _chain.open(args.chain, **variables)
    progress = _progress(args.quiet)
    if args.workers is None and args.scheduler is None:
        chain.export(args.output, format=args.format, options=args.co, progress=progress)
    else:
        from distributed import Client, LocalCluster

        from . import dask as _dask
        if args.scheduler is not None:
            client = Client(args.scheduler)
            cluster = None
        else:
            cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                                   dashboard_address=None)
            client = Client(cluster)
        try:
            _dask.export(chain, args.output, client=client, format=args.format, options=args.co,
                         progress=progress)
        finally:
            client.close()
            if cluster is not None:
                cluster.close()
    if not args.quiet:
        print(f"wrote {args.output} ({chain.width} x {chain.height}, {chain.count} "
              f"band{'s' if chain.count != 1 else ''}, {chain.dtype.name})")


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m pixwerk",
                                     description="Pixwerk's raster function chains.")
    commands = parser.add_subparsers(dest="command", required=True)
    p = commands.add_parser("run", help="write a chain to a file")
    p.add_argument("chain", help="the chain: a JSON file (or a raster to copy)")
    p.add_argument("-o", "--output", required=True, help="the file to write")
    p.add_argument("--format", "-of", default=None, help="GTiff, COG or (with a cluster) VRT")
    p.add_argument("--co", action="append", default=[], metavar="KEY=VALUE",
                   help="a creation option of the format's driver")
    p.add_argument("--set", action="append", default=[], metavar="NAME=VALUE",
                   help="a value for the chain's ${NAME} placeholders")
    where = p.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, help="a local cluster of N worker processes")
    where.add_argument("--scheduler", help="a Dask scheduler's address (tcp://host:8786)")
    p.add_argument("--quiet", "-q", action="store_true", help="no progress")
    args = parser.parse_args(argv)
    if args.workers is not None and args.workers < 1:
        parser.error("--workers needs at least 1")
    try:
        run(args)
    except PixwerkError as error:
        print(f"pixwerk: {error}", file=sys.stderr)
        return 1
    except (ValueError, TypeError, OSError) as error:
        print(f"pixwerk: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print(f"pixwerk: interrupted; '{args.output}' was not written", file=sys.stderr)
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
