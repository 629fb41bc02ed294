"""The Kubernetes manifests parse as YAML and hold what an Indexed Job over
the catalogue needs: the index mode, a shard count equal to the number of
completions, a state folder per index, resources, and the shared volume.

    kubernetes_manifest_test.py DEPLOY_KUBERNETES_DIR
"""
import os
import re
import sys

try:
    import yaml
except ImportError:  # python3-yaml is in scripts/setup; without it, say so
    print("SKIPPED: python3-yaml is not installed.")
    sys.exit(77)

folder = sys.argv[1]


def load(name):
    with open(os.path.join(folder, name)) as f:
        documents = [d for d in yaml.safe_load_all(f) if d]
    assert len(documents) == 1, "%s: one Job per file" % name
    job = documents[0]
    assert job["apiVersion"] == "batch/v1" and job["kind"] == "Job", name
    return job


def container_of(job):
    containers = job["spec"]["template"]["spec"]["containers"]
    assert len(containers) == 1
    return containers[0]


def check_volumes(job, container):
    pod = job["spec"]["template"]["spec"]
    volumes = {v["name"] for v in pod["volumes"]}
    for mount in container["volumeMounts"]:
        assert mount["name"] in volumes, mount
        assert "persistentVolumeClaim" in next(v for v in pod["volumes"] if v["name"] == mount["name"])


job = load("tarnbloom-indexed-job.yaml")
indexed = job["spec"]
assert indexed["completionMode"] == "Indexed"
completions = indexed["completions"]
assert isinstance(completions, int) and completions >= 1
assert isinstance(indexed["parallelism"], int) and 1 <= indexed["parallelism"] <= completions
assert indexed["template"]["spec"]["restartPolicy"] in ("Never", "OnFailure")
container = container_of(job)
assert container["image"]
script = " ".join(container.get("command", []) + container.get("args", []))
assert "tarnbloom enlarge" in script
# The shard count is the number of completions, and the index is the pod's.
shards = re.findall(r"--shard \"?\$\{?\(?JOB_COMPLETION_INDEX\)?\}?/(\d+)", script)
assert shards == [str(completions)], (shards, completions)
assert "--receipts beside" in script  # the report reads them beside the outputs
env = [e["name"] for e in container["env"]]
values = {e["name"]: e.get("value", "") for e in container["env"]}
assert env.index("JOB_COMPLETION_INDEX") < env.index("TARNBLOOM_HOME"), env
assert "$(JOB_COMPLETION_INDEX)" in values["TARNBLOOM_HOME"]
assert "OMP_NUM_THREADS" in env
requests = container["resources"]["requests"]
assert requests["cpu"] and requests["memory"]
check_volumes(job, container)
mount = container["volumeMounts"][0]["mountPath"]
assert values["TARNBLOOM_HOME"].startswith(mount)

report = load("tarnbloom-report-job.yaml")
assert "completionMode" not in report["spec"]
report_container = container_of(report)
report_script = " ".join(report_container.get("command", []) + report_container.get("args", []))
assert re.search(r"tarnbloom report %s/\S*" % re.escape(mount), report_script), report_script
check_volumes(report, report_container)
print("ok: Indexed Job of %d shards and its report" % completions)
